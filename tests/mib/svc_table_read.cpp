// Table reads against the real service logic: every column walked with GETNEXT from its bare
// OID meets every row once, in increasing OID order, as a manager's walk needs.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <iomanip>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "callhome_mib.h"
#include "notif.h"
#include "platform/testing.hpp"
#include "service_channel.hpp"

namespace {

using Arcs = std::vector<oid>;

uint32_t be32(uint32_t v) {
    return __builtin_bswap32(v);
}

struct variable column(u_char magic) {
    struct variable vp {};
    for (const auto &v : callhome_mib_variables) {
        if (v.magic == magic) {
            vp.magic = v.magic;
            vp.type = static_cast<char>(v.type);
            vp.acl = v.acl;
            vp.findVar = v.findVar;
            std::copy(callhome_mib_variables_oid, callhome_mib_variables_oid + 9, vp.name);
            std::copy(v.name, v.name + v.namelen, vp.name + 9);
            vp.namelen = static_cast<u_char>(9 + v.namelen);
            return vp;
        }
    }
    ADD_FAILURE() << "no object with magic " << int(magic);
    return vp;
}

Arcs operator+(Arcs a, const Arcs &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

Arcs text(const std::string &s) {
    Arcs a{s.size()};
    for (unsigned char c : s) {
        a.push_back(c);
    }
    return a;
}

std::string dotted(const Arcs &a) {
    std::string s;
    for (oid o : a) {
        s += "." + std::to_string(o);
    }
    return s;
}

// One row met by a walk: its index arcs below the column and its value as text.
struct Row {
    Arcs index;
    std::string value;
};

// Walks a column as the agent does for a manager's walk: GETNEXT from the bare column, each
// time from the OID returned, until the handler has no more.
std::vector<Row> walk(u_char magic) {
    struct variable vp = column(magic);
    const Arcs col(vp.name, vp.name + vp.namelen);
    oid name[MAX_OID_LEN] = {};
    std::copy(col.begin(), col.end(), name);
    size_t length = col.size();
    std::vector<Row> rows;
    for (int guard = 0; guard < 500; ++guard) {
        size_t var_len = 0;
        WriteMethod *write = nullptr;
        const u_char *value = vp.findVar(&vp, name, &length, 0, &var_len, &write);
        if (value == nullptr) {
            return rows;
        }
        const Arcs got(name, name + length);
        if (got.size() <= col.size() || !std::equal(col.begin(), col.end(), got.begin())) {
            ADD_FAILURE() << "row outside the column: " << dotted(got);
            return rows;
        }
        Row row;
        row.index.assign(got.begin() + long(col.size()), got.end());
        if (vp.type == ASN_OCTET_STR) {
            row.value.assign(reinterpret_cast<const char *>(value), var_len);
        } else {
            int32_t v = 0;
            EXPECT_EQ(var_len, 4u);
            std::memcpy(&v, value, sizeof v);
            row.value = std::to_string(v);
        }
        rows.push_back(row);
    }
    ADD_FAILURE() << "the walk of magic " << int(magic) << " does not end";
    return rows;
}

// Row OIDs must strictly increase along a walk (so each row is met once).
void expect_increasing(const std::vector<Row> &rows) {
    for (size_t i = 1; i < rows.size(); ++i) {
        const Arcs &a = rows[i - 1].index;
        const Arcs &b = rows[i].index;
        EXPECT_LT(snmp_oid_compare(a.data(), a.size(), b.data(), b.size()), 0)
            << "row " << dotted(b) << " follows " << dotted(a);
    }
}

std::vector<Arcs> indexes(const std::vector<Row> &rows) {
    std::vector<Arcs> out;
    for (const auto &r : rows) {
        out.push_back(r.index);
    }
    return out;
}

// OID order of index arcs.
std::vector<Arcs> in_oid_order(std::vector<Arcs> v) {
    std::sort(v.begin(), v.end(), [](const Arcs &a, const Arcs &b) {
        return snmp_oid_compare(a.data(), a.size(), b.data(), b.size()) < 0;
    });
    return v;
}

std::string hex(const std::string &bytes) {
    std::ostringstream s;
    for (unsigned char c : bytes) {
        s << std::hex << std::setw(2) << std::setfill('0') << int(c);
    }
    return s.str();
}

class SvcTableReadTest : public ::testing::Test {
  protected:
    void SetUp() override {
        platform::reset_for_tests();
        platform::set_snmp_context("ops", 11);
        svc.emplace();
        alertgroup_types[0].index = 0xFFFFFFFFu;
        alertgroup_type_count = 0;
    }
    void TearDown() override {
        svc.reset();
        platform::reset_for_tests();
    }

    // Writes a row straight to the service, as the row writes of the module send it.
    template <class Record> void service_set(int opcode, const Record &rec) {
        uint32_t len = sizeof rec;
        ASSERT_EQ(cmi_req_resp(opcode, SET_REQ, &rec, nullptr, &len, "ops", 1,
                               CALLHOME_CLIENT_TABLE, mts_response_q, 10),
                  0)
            << "SET on opcode " << opcode;
    }

    void add_profile(const std::string &id, int32_t format) {
        callHomeDestProfileEntry_t r{};
        std::strncpy(r.destination_profile_id, id.c_str(), sizeof r.destination_profile_id - 1);
        r.transport_method = int32_t(be32(1));
        r.format_method = int32_t(be32(uint32_t(format)));
        r.maximum_message_size = be32(100000);
        r.row_status = int32_t(be32(1));
        r.msg_level = 2;
        service_set(CALLHOME_DEST_PROFILE_OPC, r);
    }

    void add_email(const std::string &id, int32_t index, const std::string &addr) {
        callHomeDestEmailAddressEntry_t r{};
        std::strncpy(r.destination_profile_id, id.c_str(), sizeof r.destination_profile_id - 1);
        std::strncpy(r.email_addr, addr.c_str(), sizeof r.email_addr - 1);
        r.index = int32_t(be32(uint32_t(index)));
        r.row_status = int32_t(be32(1));
        service_set(CALLHOME_DEST_EMAIL_OPC, r);
    }

    void add_group(const std::string &id, const std::string &group) {
        callHomeAlertGroupEntry_t r{};
        std::strncpy(r.destination_profile_id, id.c_str(), sizeof r.destination_profile_id - 1);
        std::strncpy(r.alert_group, group.c_str(), sizeof r.alert_group - 1);
        r.row_status = int32_t(be32(1));
        service_set(CALLHOME_PROFILE_ALERTGROUP_OPC, r);
    }

    void add_command(const std::string &type, int32_t index, const std::string &cmd) {
        cmi_userdef_cli_cmd_t r{};
        r.index = int32_t(be32(uint32_t(index)));
        std::strncpy(r.alertgroup_type, type.c_str(), sizeof r.alertgroup_type - 1);
        r.row_status = int32_t(be32(1));
        std::strncpy(r.cli_cmd, cmd.c_str(), sizeof r.cli_cmd - 1);
        service_set(CALLHOME_USER_DEF_CMD_OPC, r);
    }

    // Profiles of several name lengths next to the built-in ones, so that the service's order
    // and the OIDs' order (length first) can disagree.
    void populate() {
        add_profile("a", 1);
        add_profile("p1", 2);
        add_profile("zz", 3);
        add_profile(std::string(31, 'm'), 1);
        add_email("full_txt", 1, "noc@example.com");
        add_email("p1", 2, "ops@example.com");
        add_email("p1", 4, "oncall@example.com");
        add_email("a", 1, "a@example.com");
        add_group("p1", "Syslog");
        add_group("p1", "Inventory");
        add_group("xml", "all");
        add_command("Syslog", 1, "show logging");
        add_command("Syslog", 5, "show clock");
        add_command("Configuration", 2, "show running-config");
        add_command("Test", 3, "show version");
    }

    std::optional<callhome_test::ServiceChannel> svc;
};

TEST_F(SvcTableReadTest, ProfileColumnsWalkEveryProfileOnceInOidOrder) {
    populate();
    const std::vector<Arcs> expected =
        in_oid_order({text("full_txt"), text("xml"), text("short_txt"), text("a"), text("p1"),
                      text("zz"), text(std::string(31, 'm'))});
    const u_char columns[] = {CALLHOMEDESTPROFILEMSGFORMAT,   CALLHOMEDESTPROFILEMAXMSGSIZE,
                              CALLHOMEDESTPROFILETRNSPRTMTHD, CALLHOMEDESTPROFILESTATUS,
                              CALLHOMEDESTPROFILEMSGLEVEL,    CALLHOMEALERTGROUPS};
    for (u_char magic : columns) {
        SCOPED_TRACE(int(magic));
        const auto rows = walk(magic);
        expect_increasing(rows);
        EXPECT_EQ(indexes(rows), expected);
    }
    // Values come with their rows.
    for (const auto &r : walk(CALLHOMEDESTPROFILEMSGFORMAT)) {
        if (r.index == text("zz")) {
            EXPECT_EQ(r.value, "3");
        }
    }
    for (const auto &r : walk(CALLHOMEDESTPROFILEMSGLEVEL)) {
        if (r.index == text("p1")) {
            EXPECT_EQ(r.value, "3"); // stored 2
        }
    }
}

TEST_F(SvcTableReadTest, AlertGroupColumnGathersEachProfilesGroups) {
    populate();
    std::vector<std::pair<Arcs, std::string>> seen;
    for (const auto &r : walk(CALLHOMEALERTGROUPS)) {
        seen.emplace_back(r.index, hex(r.value));
    }
    // Types 1..7 by default: Configuration, Diagnostic, Environmental, Inventory, Syslog,
    // System, Test; bit i is the i-th bit from the most significant of the first octet.
    for (const auto &[index, value] : seen) {
        SCOPED_TRACE(dotted(index));
        if (index == text("p1")) {
            EXPECT_EQ(value, "0c00000000000000"); // Inventory (4) and Syslog (5)
        } else if (index == text("xml")) {
            EXPECT_EQ(value, "7f00000000000000"); // all: 1..7
        } else {
            EXPECT_EQ(value, "0000000000000000");
        }
    }
}

TEST_F(SvcTableReadTest, EmailColumnsWalkEveryAddressOnceInOidOrder) {
    populate();
    const std::vector<Arcs> expected =
        in_oid_order({text("full_txt") + Arcs{1}, text("p1") + Arcs{2}, text("p1") + Arcs{4},
                      text("a") + Arcs{1}});
    for (u_char magic : {CALLHOMEDESTEMAILADDRESS, CALLHOMEDESTEMAILADDRESSSTATUS}) {
        SCOPED_TRACE(int(magic));
        const auto rows = walk(magic);
        expect_increasing(rows);
        EXPECT_EQ(indexes(rows), expected);
    }
    for (const auto &r : walk(CALLHOMEDESTEMAILADDRESS)) {
        if (r.index == text("p1") + Arcs{4}) {
            EXPECT_EQ(r.value, "oncall@example.com");
        }
    }
}

TEST_F(SvcTableReadTest, TypeAndCommandTablesWalkInOidOrder) {
    populate();
    const auto types = walk(CALLHOMEALERTGROUPTYPENAME);
    expect_increasing(types);
    ASSERT_EQ(types.size(), 7u);
    EXPECT_EQ(types.front().index, Arcs{1});
    EXPECT_EQ(types.front().value, "Configuration");
    EXPECT_EQ(types.back().index, Arcs{7});
    EXPECT_EQ(types.back().value, "Test");

    // Configuration 1, Syslog 5, Test 7; index 5 is the last of a type.
    const std::vector<Arcs> expected = {{1, 2}, {5, 1}, {5, 5}, {7, 3}};
    for (u_char magic : {CALLHOMEUSERDEFCLICMD, CALLHOMEUSERDEFCLICMDSTATUS}) {
        SCOPED_TRACE(int(magic));
        const auto rows = walk(magic);
        expect_increasing(rows);
        EXPECT_EQ(indexes(rows), expected);
    }
    const auto cmds = walk(CALLHOMEUSERDEFCLICMD);
    ASSERT_EQ(cmds.size(), 4u);
    EXPECT_EQ(cmds[0].value, "show running-config");
    EXPECT_EQ(cmds[3].value, "show version");
}

TEST_F(SvcTableReadTest, WalksWithDistributionEnabledMeetTheSameRows) {
    populate();
    const auto plain_profiles = indexes(walk(CALLHOMEDESTPROFILESTATUS));
    const auto plain_commands = indexes(walk(CALLHOMEUSERDEFCLICMD));
    ASSERT_EQ(svc->admin({"distribution", "on", "mode", "0"}).first, 0);
    EXPECT_EQ(indexes(walk(CALLHOMEDESTPROFILESTATUS)), plain_profiles);
    EXPECT_EQ(indexes(walk(CALLHOMEUSERDEFCLICMD)), plain_commands);
}

TEST_F(SvcTableReadTest, AnAddedTypeIsAnnouncedAndThenListed) {
    std::vector<std::pair<Arcs, std::string>> traps;
    platform::set_trap_sink([&](const oid *o, size_t len, netsnmp_variable_list *vars) {
        ASSERT_NE(vars, nullptr);
        traps.emplace_back(
            Arcs(o, o + len) + Arcs(vars->name, vars->name + vars->name_length),
            std::string(reinterpret_cast<const char *>(vars->val.string), vars->val_len));
    });
    ASSERT_EQ(
        register_for_notification(CALLHOME_ALERTGROUP_ADDED_NOTIF, handle_alertgroup_added_notif),
        0);
    ASSERT_EQ(register_for_notification(CALLHOME_ALERTGROUP_DELETED_NOTIF,
                                        handle_alertgroup_deleted_notif),
              0);
    const Arcs root(callhome_mib_variables_oid, callhome_mib_variables_oid + 9);

    ASSERT_EQ(svc->admin({"group", "add", "Security"}).first, 0);
    ASSERT_EQ(traps.size(), 1u);
    EXPECT_EQ(traps[0].first, (root + Arcs{0, 2} + root + Arcs{1, 1, 25, 1, 2, 8}));
    EXPECT_EQ(traps[0].second, "Security");
    const auto types = walk(CALLHOMEALERTGROUPTYPENAME);
    ASSERT_FALSE(types.empty());
    EXPECT_EQ(types.back().index, Arcs{8});
    EXPECT_EQ(types.back().value, "Security");

    ASSERT_EQ(svc->admin({"group", "del", "Security"}).first, 0);
    ASSERT_EQ(traps.size(), 2u);
    EXPECT_EQ(traps[1].first, (root + Arcs{0, 3} + root + Arcs{1, 1, 25, 1, 2, 8}));
    EXPECT_EQ(walk(CALLHOMEALERTGROUPTYPENAME).size(), 7u);
}

} // namespace
