// The alert-group type registry and the notifications of added and removed types.
#include <gtest/gtest.h>

#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "bitset.h"
#include "callhome_mib.h"
#include "fake_channel.hpp"
#include "notif.h"
#include "platform/testing.hpp"

namespace {

using callhome_test::be32;
using callhome_test::FakeChannel;
using Reply = platform::CmiReply;

constexpr uint32_t kTypeListEnd = 0xFFFFFFFFu;

callhome_alertgroup_type_t type_rec(uint32_t index, const std::string &name) {
    callhome_alertgroup_type_t r{};
    r.index = be32(index);
    std::strncpy(r.grp_name, name.c_str(), sizeof r.grp_name - 1);
    return r;
}

// The registry as a refresh would leave it (host order, terminated).
void set_registry(const std::vector<std::pair<uint32_t, std::string>> &types) {
    size_t i = 0;
    for (const auto &[index, name] : types) {
        alertgroup_types[i] = callhome_alertgroup_type_t{};
        alertgroup_types[i].index = index;
        std::strncpy(alertgroup_types[i].grp_name, name.c_str(),
                     sizeof alertgroup_types[i].grp_name - 1);
        ++i;
    }
    alertgroup_types[i].index = kTypeListEnd;
    alertgroup_type_count = uint32_t(types.size());
}

// A profile's bit set as the module keeps it.
struct Bits {
    uint32_t size = 32;
    uint8_t storage[32] = {};
    Bits() = default;
    Bits(std::initializer_list<uint32_t> bits) {
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
static_assert(sizeof(Bits) == 36, "header word and 32 bytes of storage");

class AlertGroupTest : public ::testing::Test {
  protected:
    void SetUp() override {
        platform::reset_for_tests();
        platform::set_snmp_context("ops", 77);
        channel.emplace();
        set_registry({});
    }
    void TearDown() override {
        channel.reset();
        platform::reset_for_tests();
        set_registry({});
    }

    // Answers GETNEXT on the type table from `types` (increasing indexes).
    void serve_types(std::vector<std::pair<uint32_t, std::string>> types) {
        channel->serve_with([types](const platform::CmiRequest &r) {
            const uint32_t after = be32(FakeChannel::as<callhome_alertgroup_type_t>(r).index);
            for (const auto &[index, name] : types) {
                if (index > after) {
                    const auto rec = type_rec(index, name);
                    const auto *p = reinterpret_cast<const uint8_t *>(&rec);
                    return Reply{0, true, std::vector<uint8_t>(p, p + sizeof rec), 0};
                }
            }
            return Reply{CALLHOME_END_OF_TABLE, false, {}, 0};
        });
    }

    std::optional<FakeChannel> channel;
};

// ---- refresh ----------------------------------------------------------------------------

TEST_F(AlertGroupTest, RefreshWalksTheServicesTypesInOrder) {
    serve_types({{1, "Syslog"}, {2, "Inventory"}, {5, "Test"}});
    get_all_alertgroup_types();

    EXPECT_EQ(alertgroup_type_count, 3u);
    EXPECT_EQ(alertgroup_types[0].index, 1u);
    EXPECT_STREQ(alertgroup_types[0].grp_name, "Syslog");
    EXPECT_EQ(alertgroup_types[2].index, 5u);
    EXPECT_STREQ(alertgroup_types[2].grp_name, "Test");
    EXPECT_EQ(alertgroup_types[3].index, kTypeListEnd);

    // Each GETNEXT continues from the index just returned, big-endian.
    const uint32_t asked[] = {0, 1, 2, 5};
    ASSERT_EQ(channel->count(), 4u);
    for (size_t i = 0; i < 4; ++i) {
        SCOPED_TRACE(i);
        const auto &r = channel->at(i);
        EXPECT_EQ(r.opcode, CALLHOME_ALERTGROUP_TYPE_OPC);
        EXPECT_EQ(r.msg_type, GETNEXT_REQ);
        EXPECT_EQ(r.record.size(), 260u);
        EXPECT_EQ(FakeChannel::as<callhome_alertgroup_type_t>(r).index, be32(asked[i]));
        EXPECT_EQ(r.client, 66);
        EXPECT_EQ(r.wait, 4);
        EXPECT_EQ(r.user, "ops");
        EXPECT_EQ(r.session, 77u);
        EXPECT_TRUE(r.wants_record);
    }
}

TEST_F(AlertGroupTest, AFailedRefreshEmptiesTheListButKeepsTheCount) {
    struct Case {
        const char *what;
        Reply reply;
        const char *trace;
    } cases[] = {
        {"service status", Reply{CALLHOME_UNKNOWN_ENTRY, false, {}, 0},
         "get_all_alertgroup_types : GETNEXT REQ FAILED  - errcode : "},
        {"no status", Reply{-1, false, {}, ETIME},
         "get_all_alertgroup_types : GETNEXT REQ FAILED \n"},
        {"success without record", Reply{0, false, {}, 0},
         "get_all_alertgroup_types : GETNEXT REQ FAILED  - errcode : "},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        set_registry({{1, "Syslog"}, {2, "Inventory"}});
        platform::clear_trace_history();
        channel->serve_with([&](const platform::CmiRequest &) { return c.reply; });
        get_all_alertgroup_types();
        EXPECT_EQ(alertgroup_types[0].index, kTypeListEnd);
        EXPECT_EQ(alertgroup_type_count, 2u); // stale: only a stored entry changes it
        bool traced = false;
        for (const auto &[level, text] : platform::trace_history()) {
            traced |= level == CALLHOME_TRACE_ERROR && text.rfind(c.trace, 0) == 0;
        }
        EXPECT_TRUE(traced);
        // The scans stop at the terminator, whatever the stale count says.
        Bits all;
        std::memset(all.storage, 0xFF, sizeof all.storage);
        EXPECT_EQ(is_all_alertgroup_types_set(&all), 0);
        Bits none;
        set_mib_var_alertgroup(&none, "all");
        EXPECT_TRUE(none.set().empty());
    }
}

TEST_F(AlertGroupTest, RefreshNeverWritesPastTheList) {
    // A service with more types than the list holds.
    std::vector<std::pair<uint32_t, std::string>> many;
    for (uint32_t i = 1; i <= 400; ++i) {
        many.emplace_back(i, "type" + std::to_string(i));
    }
    serve_types(many);
    get_all_alertgroup_types();
    EXPECT_EQ(alertgroup_type_count, 255u);
    EXPECT_EQ(alertgroup_types[254].index, 255u);
    EXPECT_EQ(alertgroup_types[255].index, kTypeListEnd);
    EXPECT_EQ(channel->count(), 255u);

    // The scans stay within the 256 entries too, even without a terminator.
    for (size_t i = 0; i < CALLHOME_MAX_ALERTGROUP_TYPES; ++i) {
        alertgroup_types[i].index = uint32_t(i);
        std::strcpy(alertgroup_types[i].grp_name, "same");
    }
    alertgroup_type_count = 256;
    Bits bits;
    set_mib_var_alertgroup(&bits, "same");
    EXPECT_EQ(bits.set().size(), 256u);
    EXPECT_EQ(is_all_alertgroup_types_set(&bits), 1);
}

// ---- names to bits ----------------------------------------------------------------------

TEST_F(AlertGroupTest, NamesSetTheBitsOfTheirTypes) {
    set_registry({{1, "Syslog"}, {2, "Environmental"}, {7, "Syslog"}, {9, "ALL"}, {4, "Test"}});
    struct Case {
        const char *name;
        std::vector<uint32_t> bits;
    } cases[] = {
        {"all", {1, 2, 4, 7, 9}},
        {"Syslog", {1, 7}}, // both entries of a duplicated name
        {"ALL", {9}},       // only a type of that name: the keyword is lower case
        {"All", {}},
        {"syslog", {}},
        {"Missing", {}},
        {"", {}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        Bits bits;
        set_mib_var_alertgroup(&bits, c.name);
        EXPECT_EQ(bits.set(), c.bits);
    }
    // Bits already set stay set.
    Bits bits{30};
    set_mib_var_alertgroup(&bits, "Test");
    EXPECT_EQ(bits.set(), (std::vector<uint32_t>{4, 30}));
}

TEST_F(AlertGroupTest, AllSetAndAllClearAreJudgedOverTheKnownTypes) {
    struct Case {
        const char *what;
        std::vector<std::pair<uint32_t, std::string>> types;
        Bits bits;
        int all_set;
        int all_clear;
    } cases[] = {
        {"empty list, nothing set", {}, Bits{}, 0, 0},
        {"empty list, bits set", {}, Bits{1, 2, 3}, 0, 0},
        {"every type set", {{1, "A"}, {3, "B"}}, Bits{1, 3}, 1, 0},
        {"every type set and more", {{1, "A"}, {3, "B"}}, Bits{0, 1, 3, 63}, 1, 0},
        {"no type set", {{1, "A"}, {3, "B"}}, Bits{2, 4}, 0, 1},
        {"some set", {{1, "A"}, {3, "B"}}, Bits{3}, 0, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        set_registry(c.types);
        EXPECT_EQ(is_all_alertgroup_types_set(&c.bits), c.all_set);
        EXPECT_EQ(is_all_alertgroup_types_reset(&c.bits), c.all_clear);
    }
}

// ---- index of a name --------------------------------------------------------------------

TEST_F(AlertGroupTest, IndexLookupWalksFromTheStartGiven) {
    serve_types({{1, "Syslog"}, {2, "Inventory"}, {5, "Test"}});
    EXPECT_EQ(get_alertgroup_type_index(0, "Test"), 5);
    EXPECT_EQ(channel->count(), 3u);

    channel->clear();
    EXPECT_EQ(get_alertgroup_type_index(2, "Syslog"), -1); // before the start
    ASSERT_GE(channel->count(), 1u);
    EXPECT_EQ(FakeChannel::as<callhome_alertgroup_type_t>(channel->at(0)).index, be32(2));
    EXPECT_EQ(channel->at(0).msg_type, GETNEXT_REQ);
    EXPECT_EQ(channel->at(0).client, 66);
    EXPECT_EQ(channel->at(0).wait, 4);

    EXPECT_EQ(get_alertgroup_type_index(0, "test"), -1); // names are case-sensitive
    channel->serve_with([](const platform::CmiRequest &) {
        return Reply{-1, false, {}, ECONNREFUSED};
    });
    EXPECT_EQ(get_alertgroup_type_index(0, "Syslog"), -1);
    // The lookup does not touch the registry.
    EXPECT_EQ(alertgroup_type_count, 0u);
}

// ---- notifications ----------------------------------------------------------------------

struct Sent {
    std::vector<oid> notif_oid;
    std::vector<oid> binding_oid;
    u_char type = 0;
    std::string value;
    int bindings = 0;
};

std::vector<Sent> sent;

struct HandlerResult {
    int send = -1;
    size_t notif_oid_len = 0;
    bool returned_list = false;
};
HandlerResult last_result;

template <notif_handler_t Handler>
netsnmp_variable_list *spy(mts_msg_t *msg, oid *notif_oid, size_t *len, int *send) {
    netsnmp_variable_list *vars = Handler(msg, notif_oid, len, send);
    last_result = {*send, *len, vars != nullptr};
    return vars;
}

std::vector<oid> root_plus(std::initializer_list<oid> suffix) {
    std::vector<oid> o(callhome_mib_variables_oid, callhome_mib_variables_oid + 9);
    o.insert(o.end(), suffix);
    return o;
}

class AlertGroupNotifTest : public AlertGroupTest {
  protected:
    void SetUp() override {
        AlertGroupTest::SetUp();
        sent.clear();
        last_result = {};
        platform::set_trap_sink([](const oid *o, size_t len, netsnmp_variable_list *vars) {
            Sent s;
            s.notif_oid.assign(o, o + len);
            for (auto *v = vars; v != nullptr; v = v->next_variable) {
                ++s.bindings;
                s.binding_oid.assign(v->name, v->name + v->name_length);
                s.type = v->type;
                s.value.assign(reinterpret_cast<const char *>(v->val.string), v->val_len);
            }
            sent.push_back(s);
        });
        register_for_notification(CALLHOME_ALERTGROUP_ADDED_NOTIF,
                                  spy<handle_alertgroup_added_notif>);
        register_for_notification(CALLHOME_ALERTGROUP_DELETED_NOTIF,
                                  spy<handle_alertgroup_deleted_notif>);
    }

    static std::vector<uint8_t> payload(uint32_t index, const std::string &name) {
        std::vector<uint8_t> p(4 + name.size() + 1, 0);
        const uint32_t be = be32(index);
        std::memcpy(p.data(), &be, 4);
        std::memcpy(p.data() + 4, name.data(), name.size());
        return p;
    }
};

TEST_F(AlertGroupNotifTest, TypeChangesBecomeNotificationsWithTheName) {
    set_registry({{1, "Syslog"}});
    struct Case {
        int id;
        uint32_t index;
        std::string name;
        oid last_arc;
    } cases[] = {
        {CALLHOME_ALERTGROUP_ADDED_NOTIF, 8, "Security", 2},
        {CALLHOME_ALERTGROUP_DELETED_NOTIF, 1, "Syslog", 3},
        {CALLHOME_ALERTGROUP_ADDED_NOTIF, 0x01020304, "Big", 2}, // the index is big-endian
        {CALLHOME_ALERTGROUP_ADDED_NOTIF, 3, "", 2},             // shorter than the header
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        sent.clear();
        const auto p = payload(c.index, c.name);
        ASSERT_EQ(platform::deliver_notification(c.id, p.data(), p.size()), 1);
        EXPECT_EQ(last_result.send, 1);
        EXPECT_EQ(last_result.notif_oid_len, 11u);
        ASSERT_EQ(sent.size(), 1u);
        EXPECT_EQ(sent[0].notif_oid, root_plus({0, c.last_arc}));
        EXPECT_EQ(sent[0].bindings, 1);
        EXPECT_EQ(sent[0].binding_oid, root_plus({1, 1, 25, 1, 2, c.index}));
        EXPECT_EQ(sent[0].binding_oid.size(), 15u);
        EXPECT_EQ(sent[0].type, ASN_OCTET_STR);
        EXPECT_EQ(sent[0].value, c.name);
    }
    // The registry is refreshed on the next read, not by the notification.
    EXPECT_EQ(alertgroup_type_count, 1u);
    EXPECT_STREQ(alertgroup_types[0].grp_name, "Syslog");
    EXPECT_EQ(alertgroup_types[1].index, kTypeListEnd);
    EXPECT_EQ(channel->count(), 0u);
}

TEST_F(AlertGroupNotifTest, NoMessageSendsNothing) {
    for (auto handler : {handle_alertgroup_added_notif, handle_alertgroup_deleted_notif}) {
        oid notif_oid[MAX_OID_LEN] = {};
        size_t len = 0;
        int send = 1;
        EXPECT_EQ(handler(nullptr, notif_oid, &len, &send), nullptr);
        EXPECT_EQ(send, 0);
        EXPECT_EQ(len, 0u);
    }
    EXPECT_TRUE(sent.empty());
}

} // namespace
