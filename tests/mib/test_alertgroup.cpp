// The alert-group type registry and the notifications of added and removed types.
#include <gtest/gtest.h>

#include <optional>

#include "bitset.h"
#include "mib_support.hpp"
#include "notif.h"

namespace {

using namespace callhome_test;
constexpr uint32_t kEnd = 0xFFFFFFFFu;

// The registry as a refresh would leave it (host order, terminated).
void set_registry(const Types &types) {
    size_t i = 0;
    for (const auto &[index, name] : types) {
        alertgroup_types[i] = callhome_alertgroup_type_t{index, {}};
        put(alertgroup_types[i++].grp_name, name);
    }
    alertgroup_types[i].index = kEnd;
    alertgroup_type_count = uint32_t(types.size());
}

// A profile's bit set as the module keeps it: a size word and 32 bytes.
struct Bits {
    uint32_t size = 32;
    uint8_t storage[32] = {};
    Bits(std::initializer_list<uint32_t> bits = {}) {
        for (uint32_t b : bits) {
            bitset_set_bit(this, b);
        }
    }
    std::vector<uint32_t> set() const {
        std::vector<uint32_t> out;
        for (uint32_t b = 0; b < 256; ++b) {
            if (bitset_is_bit_set(this, b)) {
                out.push_back(b);
            }
        }
        return out;
    }
};

class AlertGroupTest : public ::testing::Test {
  protected:
    void SetUp() override {
        platform::reset_for_tests();
        platform::set_snmp_context("ops", 77);
        channel.emplace();
        set_registry({});
    }
    void serve(Types types) {
        channel->serve_with([types](const auto &r) { return serve_types(types, r); });
    }
    std::optional<FakeChannel> channel;
};

TEST_F(AlertGroupTest, RefreshAndLookupWalkTheServicesTypesInOrder) {
    serve({{1, "Syslog"}, {2, "Inventory"}, {5, "Test"}});
    get_all_alertgroup_types();
    EXPECT_EQ(alertgroup_type_count, 3u);
    EXPECT_TRUE(alertgroup_types[2].index == 5u && alertgroup_types[3].index == kEnd);
    EXPECT_STREQ(alertgroup_types[2].grp_name, "Test");
    EXPECT_EQ(channel->count(), 4u); // the end is asked for once (the keys: the golden session)
    // The index of a name, looked up from the start given.
    channel->clear();
    EXPECT_EQ(get_alertgroup_type_index(0, "Test"), 5);
    EXPECT_EQ(channel->count(), 3u);
    channel->clear();
    EXPECT_EQ(get_alertgroup_type_index(2, "Syslog"), -1); // before the start
    EXPECT_EQ(FakeChannel::as<callhome_alertgroup_type_t>(channel->at(0)).index, be32(2));
    EXPECT_EQ(get_alertgroup_type_index(0, "test"), -1); // names are case-sensitive
    channel->serve_with([](const auto &) { return status_reply(-1, ECONNREFUSED); });
    EXPECT_EQ(get_alertgroup_type_index(0, "Syslog"), -1);
    EXPECT_TRUE(alertgroup_type_count == 3u && alertgroup_types[0].index == 1u); // untouched
    // A service with more types than the list holds: the last slot stays the terminator.
    channel->clear();
    Types many;
    for (uint32_t i = 1; i <= 400; ++i) {
        many.emplace_back(i, "type" + std::to_string(i));
    }
    serve(many);
    get_all_alertgroup_types();
    EXPECT_EQ(alertgroup_type_count, 255u);
    EXPECT_TRUE(alertgroup_types[254].index == 255u && alertgroup_types[255].index == kEnd);
    EXPECT_EQ(channel->count(), 255u);
}

TEST_F(AlertGroupTest, AFailedRefreshEmptiesTheListButKeepsTheCount) {
    // (A success without a record is a failure too.)
    for (const Reply &reply :
         {status_reply(CALLHOME_UNKNOWN_ENTRY), status_reply(-1, ETIME), status_reply(0)}) {
        set_registry({{1, "Syslog"}, {2, "Inventory"}});
        channel->serve_with([&](const platform::CmiRequest &) { return reply; });
        get_all_alertgroup_types();
        EXPECT_EQ(alertgroup_types[0].index, kEnd);
        EXPECT_EQ(alertgroup_type_count, 2u); // stale: only a stored entry changes it
        // The scans stop at the terminator, whatever the stale count says.
        Bits all, none;
        std::memset(all.storage, 0xFF, sizeof all.storage);
        set_mib_var_alertgroup(&none, "all");
        EXPECT_TRUE(is_all_alertgroup_types_set(&all) == 0 && none.set().empty());
    }
}

TEST_F(AlertGroupTest, NamesSetTheBitsOfTheirTypesAndAllIsJudgedOverTheKnownTypes) {
    // Every entry of a duplicated name; the keyword "all" is lower case only; bits already
    // set (30) stay set.
    set_registry({{1, "Syslog"}, {2, "Environmental"}, {7, "Syslog"}, {9, "ALL"}, {4, "Test"}});
    // clang-format off
    const std::pair<const char *, std::vector<uint32_t>> names[] = {
        {"all", {1, 2, 4, 7, 9, 30}}, {"Syslog", {1, 7, 30}}, {"ALL", {9, 30}}, {"All", {30}},
        {"syslog", {30}}, {"Missing", {30}}, {"", {30}}};
    const Types two = {{1, "A"}, {3, "B"}};
    const std::tuple<Types, Bits, int, int> cases[] = { // types, bits, all set, all clear
        {{}, Bits{}, 0, 0}, {{}, Bits{1, 2, 3}, 0, 0}, {two, Bits{1, 3}, 1, 0},
        {two, Bits{0, 1, 3, 63}, 1, 0}, {two, Bits{2, 4}, 0, 1}, {two, Bits{3}, 0, 0}};
    // clang-format on
    for (const auto &[name, want] : names) {
        Bits bits{30};
        set_mib_var_alertgroup(&bits, name);
        EXPECT_EQ(bits.set(), want) << name;
    }
    for (size_t i = 0; i < std::size(cases); ++i) {
        const auto &[types, bits, all_set, all_clear] = cases[i];
        set_registry(types);
        EXPECT_EQ(is_all_alertgroup_types_set(&bits), all_set) << i;
        EXPECT_EQ(is_all_alertgroup_types_reset(&bits), all_clear) << i;
    }
}

TEST_F(AlertGroupTest, TypeChangesBecomeNotificationsWithTheName) {
    // One binding: the name under the type-name column, at the big-endian index. The second
    // payload is shorter than 8 bytes. The platform emits only when the handler sets `send`.
    static std::vector<std::pair<Arcs, std::string>> sent; // the sink takes no captures
    sent.clear();
    platform::set_trap_sink([](const oid *o, size_t len, netsnmp_variable_list *v) {
        ASSERT_TRUE(v->type == ASN_OCTET_STR && v->next_variable == nullptr);
        sent.emplace_back(Arcs(o, o + len) + Arcs(v->name, v->name + v->name_length),
                          std::string(reinterpret_cast<const char *>(v->val.string), v->val_len));
    });
    register_for_notification(CALLHOME_ALERTGROUP_ADDED_NOTIF, handle_alertgroup_added_notif);
    register_for_notification(CALLHOME_ALERTGROUP_DELETED_NOTIF, handle_alertgroup_deleted_notif);
    set_registry({{1, "Syslog"}});
    const uint8_t deleted[] = {0, 0, 0, 1, 'S', 'y', 's', 'l', 'o', 'g', 0},
                  added[] = {1, 2, 3, 4, 0};
    ASSERT_EQ(platform::deliver_notification(CALLHOME_ALERTGROUP_DELETED_NOTIF, deleted, 11), 1);
    ASSERT_EQ(platform::deliver_notification(CALLHOME_ALERTGROUP_ADDED_NOTIF, added, 5), 1);
    const Arcs root(callhome_mib_variables_oid, callhome_mib_variables_oid + 9),
        type = {1, 1, 25, 1, 2};
    EXPECT_EQ(sent, (decltype(sent){{root + Arcs{0, 3} + root + type + Arcs{1}, "Syslog"},
                                    {root + Arcs{0, 2} + root + type + Arcs{0x01020304}, ""}}));
    // The registry is refreshed on the next read, not by the notification.
    EXPECT_TRUE(alertgroup_type_count == 1u && channel->count() == 0u);
}

// One group's update clears the request flag and maps the service's status.
TEST_F(AlertGroupTest, UpdateOfOneGroupClearsTheFlagAndMapsTheStatus) {
    callHomeAlertGroupEntry_t e = group_rec("old", "Diagnostic", 0);
    e.request_flag = 7;
    EXPECT_EQ(update_cmi_alertGroups(DELETE_REQ, &e), SNMP_ERR_NOSUCHNAME);
    ASSERT_EQ(channel->count(), 1u);
    const auto sent = FakeChannel::as<callHomeAlertGroupEntry_t>(channel->last());
    EXPECT_EQ(
        std::make_tuple(channel->last().msg_type, sent.request_flag, std::string(sent.alert_group)),
        std::make_tuple(int{DELETE_REQ}, uint8_t{0}, std::string("Diagnostic")));
    EXPECT_EQ(update_cmi_alertGroups(SET_REQ, nullptr), SNMP_ERR_GENERR);
}

} // namespace
