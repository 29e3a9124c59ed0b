// Row writes of the profile, e-mail address and user-command tables and a profile's alert
// groups, driven through whole SET requests against a model of the service's tables: what
// reaches the service byte for byte, what each refusal answers, and what UNDO puts back.
#include <gtest/gtest.h>

#include "mib_support.hpp"

namespace callhome_test {
namespace {

const Write kOld = profile_row("old", 2, 9000, 3); // MIB level 4
const Write kMail = email_row("ops", 7, "old@b");
const Write kCmd = command_row("Configuration", 2, "show clock");

class TableWrite : public ::testing::Test {
  protected:
    void SetUp() override {
        platform::set_snmp_context("admin", 77);
        init_callhome_mib();
    }
    void TearDown() override {
        EXPECT_TRUE(containers_empty());
        deinit_callhome_mib();
    }
    // The model holds `rows`, kOld, kMail, kCmd and the three types; nothing is recorded.
    void reset(std::vector<Write> rows = {}, bool types = true) {
        rows.insert(rows.end(), {kOld, kMail, kCmd});
        if (types) {
            rows.insert(rows.end(), {type_row(1, "Configuration"), type_row(2, "Diagnostic"),
                                     type_row(3, "Inventory")});
        }
        model.rows.clear();
        for (const Write &w : rows) {
            model.put(w);
        }
        channel.clear();
        platform::clear_heartbeat_state();
        platform::clear_errors();
        platform::clear_trace_history();
    }
    std::vector<Write> sent() const { return writes(channel, "admin", 77); }

    PlatformReset reset_;
    FakeChannel channel;
    TableModel model{channel};
};

Varbind prof(int col, const std::string &name, long v) {
    return int_vb(profile_oid(col, name), v, col == kMaxSize ? ASN_UNSIGNED : ASN_INTEGER);
}
const auto prow = [](const std::string &name, long v) { return prof(kProfileStatus, name, v); };
const auto mail = [](int i, long v, const std::string &p = "ops") {
    return int_vb(email_oid(kEmailStatus, p, i), v);
};
const auto addr = [](int i, const std::string &a) {
    return str_vb(email_oid(kEmailAddr, "ops", i), a);
};
const auto cmd = [](int t, int i, long v) { return int_vb(command_oid(kCommandStatus, t, i), v); };
const auto cli = [](int t, int i, const std::string &c) {
    return str_vb(command_oid(kCommand, t, i), c);
};
const auto groups = [](Bytes v, const std::string &p = "old") {
    return Varbind{profile_oid(kGroups, p), ASN_OCTET_STR, std::move(v)};
};
const auto grp = [](const std::string &g) { return group_row("old", g); };

constexpr int kAct = ACTION, kGenErr = SNMP_ERR_GENERR, kIncons = SNMP_ERR_INCONSISTENTVALUE,
              kWrongValue = SNMP_ERR_WRONGVALUE, kNoSuch = SNMP_ERR_NOSUCHNAME;
constexpr uint8_t kConf = 0x40, kDiag = 0x20, kInv = 0x10, kAll = 0x70; // types 1, 2, 3

struct Fault {
    int opcode = 0, msg_type = 0, status = 0, skip = 0;
};
struct Case {
    const char *what;
    std::vector<Varbind> vbs;
    int status = 0, phase = -1; // the first failure; phase -1 when none
    std::vector<Write> writes = {};
    int32_t error = 0, logged = 0; // in the error record; logged with log_set_error(status, 472)
    Fault fault = {};
    std::vector<Write> extra = {}; // rows besides kOld, kMail and kCmd
};

TEST_F(TableWrite, RequestsSendExactlyTheseWritesAndFailuresPutEverythingBack) {
    const std::string s255(255, 'x'), c599(599, 'c');
    // clang-format off
    const Case cases[] = {
        // Profiles: a created row is sent once, complete, with the defaults of its format.
        {.what = "create", .vbs = {prow("p1", 4)}, .writes = {profile_row("p1")}},
        {.what = "create, format 3 gets the short size", .vbs = {prow("p1", 4), prof(kFormat, "p1", 3)},
            .writes = {profile_row("p1", 3, 4000)}},
        {.what = "create, explicit size 0 gets the default",
            .vbs = {prow("p1", 4), prof(kFormat, "p1", 2), prof(kMaxSize, "p1", 0)},
            .writes = {profile_row("p1", 2, 500000)}},
        {.what = "create, level one lower on the wire",
            .vbs = {prow("p1", 4), prof(kMaxSize, "p1", 2000), prof(kLevel, "p1", 10)},
            .writes = {profile_row("p1", 1, 2000, 9)}},
        {.what = "create, columns first",
            .vbs = {prof(kTransport, "p1", 1), prof(kLevel, "p1", 1), prow("p1", 4)},
            .writes = {profile_row("p1")}},
        {.what = "names like built-in ones", .vbs = {prow("xmlx", 4), prow("XML", 4), prow("a b", 4)},
            .writes = {profile_row("xmlx"), profile_row("XML"), profile_row("a b")}},
        // An existing row is re-sent whole with the one field changed.
        {.what = "level", .vbs = {prof(kLevel, "old", 3)}, .writes = {profile_row("old", 2, 9000, 2)}},
        {.what = "format", .vbs = {prof(kFormat, "old", 3)}, .writes = {profile_row("old", 3, 9000, 3)}},
        {.what = "size 1000000", .vbs = {prof(kMaxSize, "old", 1000000)},
            .writes = {profile_row("old", 2, 1000000, 3)}},
        {.what = "active re-sends", .vbs = {prow("old", 1)}, .writes = {kOld}},
        {.what = "destroy, one row per table", .vbs = {prow("old", 6), mail(7, 6), cmd(1, 2, 6)},
            .writes = {del(kOld), del(kMail), del(kCmd)}},
        {.what = "destroy absent rows", .vbs = {prow("p1", 6), mail(8, 6), cmd(1, 4, 6)}},
        // Addresses and commands.
        {.what = "address", .vbs = {mail(1, 4), addr(1, "a@b.example")},
            .writes = {email_row("ops", 1, "a@b.example")}},
        {.what = "address of 255", .vbs = {mail(2, 4), addr(2, s255)}, .writes = {email_row("ops", 2, s255)}},
        {.what = "command in the service layout", .vbs = {cmd(2, 3, 4), cli(2, 3, "show version")},
            .writes = {command_row("Diagnostic", 3, "show version")}},
        {.what = "command of 599", .vbs = {cmd(1, 5, 4), cli(1, 5, c599)},
            .writes = {command_row("Configuration", 5, c599)}},
        // A later variable fails: UNDO deletes created rows and re-sends destroyed ones.
        {.what = "undo profiles", .vbs = {prow("old", 6), prow("fresh", 4), prof(kFormat, "ghost", 2)},
            .status = kNoSuch, .phase = kAct,
            .writes = {del(kOld), profile_row("fresh"), kOld, del(profile_row("fresh", 0, 0, 0, 0, 0))}},
        {.what = "undo address", .vbs = {mail(7, 6), prof(kFormat, "ghost", 2)}, .status = kNoSuch,
            .phase = kAct, .writes = {del(kMail), kMail}},
        {.what = "undo commands",
            .vbs = {cmd(1, 2, 6), cmd(2, 1, 4), cli(2, 1, "show log"), cli(1, 4, "ghost")},
            .status = kNoSuch, .phase = kAct,
            .writes = {del(kCmd), command_row("Diagnostic", 1, "show log"), kCmd, del(command_row("Diagnostic", 1, "", 0))}},
        // Refusals (the others are pinned by the golden session, where "xml" exists): an empty
        // row is deleted again with the key alone.
        {.what = "create xml", .vbs = {prow("xml", 4)}, .status = kGenErr, .phase = RESERVE1,
            .error = CALLHOME_ERR_BAD_PROFILE_NAME},
        {.what = "no address", .vbs = {mail(1, 4)}, .status = kIncons, .phase = kAct,
            .writes = {del(email_row("ops", 1, "", 0))}},
        {.what = "no command", .vbs = {cmd(1, 1, 4)}, .status = kIncons, .phase = kAct,
            .writes = {del(command_row("Configuration", 1, "", 0))}},
        // The service fails in ACTION.
        {.what = "creating SET refused", .vbs = {prow("p1", 4)}, .status = kGenErr, .phase = kAct,
            .writes = {profile_row("p1"), del(profile_row("p1", 0, 0, 0, 0, 0))},
            .logged = CALLHOME_ERR_NO_MEMORY,
            .fault = {CALLHOME_DEST_PROFILE_OPC, SET_REQ, CALLHOME_ERR_NO_MEMORY}},
        {.what = "profile read in ACTION fails", .vbs = {prow("old", 6)}, .status = kGenErr, .phase = kAct,
            .writes = {kOld}, .error = CALLHOME_ERR_INVALID_INPUT,
            .fault = {CALLHOME_DEST_PROFILE_OPC, GET_REQ, CALLHOME_ERR_INVALID_INPUT, 1}},
        {.what = "DELETE refused as unknown", .vbs = {prow("old", 6)}, .status = kNoSuch, .phase = kAct,
            .writes = {del(kOld), kOld}, .logged = CALLHOME_UNKNOWN_ENTRY,
            .fault = {CALLHOME_DEST_PROFILE_OPC, DELETE_REQ, CALLHOME_UNKNOWN_ENTRY}},
        {.what = "address read in ACTION fails: logged only", .vbs = {mail(7, 6)}, .status = kGenErr,
            .phase = kAct, .writes = {kMail}, .logged = CALLHOME_ERR_NO_MEMORY,
            .fault = {CALLHOME_DEST_EMAIL_OPC, GET_REQ, CALLHOME_ERR_NO_MEMORY, 1}},
        // Alert groups: one SET or DELETE per group that changes; "all" for every known type.
        {.what = "groups: none to one", .vbs = {groups({kConf})}, .writes = {grp("Configuration")}},
        {.what = "groups: swap", .vbs = {groups({kDiag | kInv})},
            .writes = {del(grp("Configuration")), grp("Inventory")},
            .extra = {grp("Configuration"), grp("Diagnostic")}},
        {.what = "groups: some to all", .vbs = {groups({kAll})},
            .writes = {del(grp("Configuration")), del(grp("Inventory")), grp("all")},
            .extra = {grp("Configuration"), grp("Inventory")}},
        {.what = "groups: none to all, 8 octets", .vbs = {groups({kAll, 0, 0, 0, 0, 0, 0, 0})},
            .writes = {grp("all")}},
        {.what = "groups: all to all", .vbs = {groups({kAll})}, .extra = {grp("all")}},
        {.what = "groups: all to none", .vbs = {groups({})}, .writes = {del(grp("all"))},
            .extra = {grp("all")}},
        {.what = "all to 00", .vbs = {groups({0, 0})}, .writes = {del(grp("all"))}, .extra = {grp("all")}},
        {.what = "groups: one to none", .vbs = {groups({0})}, .writes = {del(grp("Diagnostic"))},
            .extra = {grp("Diagnostic")}},
        {.what = "groups: unchanged", .vbs = {groups({kDiag})}, .extra = {grp("Diagnostic")}},
        {.what = "groups: unknown types ignored", .vbs = {groups({0x80, 0xFF})}},
        {.what = "groups: all replaced only by none", .vbs = {groups({kConf})}, .status = kWrongValue,
            .phase = kAct, .extra = {grp("all")}},
        {.what = "groups: a refused SET is only logged", .vbs = {groups({kConf | kDiag})},
            .writes = {grp("Configuration"), grp("Diagnostic")}, .logged = CALLHOME_ERR_INVALID_INPUT,
            .fault = {CALLHOME_PROFILE_ALERTGROUP_OPC, SET_REQ, CALLHOME_ERR_INVALID_INPUT}},
    };
    // clang-format on
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        reset(c.extra);
        const auto before = model.rows;
        if (c.fault.opcode != 0) {
            model.fail(c.fault.opcode, c.fault.msg_type, c.fault.status, c.fault.skip);
        }
        const SetResult r = run_set(c.vbs);
        EXPECT_EQ(r.status, c.status);
        EXPECT_EQ(r.phase, c.phase);
        EXPECT_EQ(sent(), c.writes);
        EXPECT_EQ(platform::last_snmp_error().first, c.error);
        EXPECT_EQ(platform::last_set_error(), std::make_pair(c.logged, c.logged == 0 ? 0 : 472));
        if (c.status != 0) {
            EXPECT_EQ(model.rows, before);
        }
        EXPECT_TRUE(containers_empty());
    }
}

TEST_F(TableWrite, WithoutKnownTypesNoGroupIsSent) {
    for (Bytes value : {Bytes{}, Bytes{0xFF}}) {
        reset({grp("all")}, false);
        EXPECT_EQ(run_set({groups(value)}).status, 0);
        EXPECT_TRUE(sent().empty());
    }
}

// A write goes to the row its OID names, even when the service's read answers another row.
TEST_F(TableWrite, CommandWritesGoToTheRowTheOidNames) {
    reset();
    channel.serve_with([this](const platform::CmiRequest &r) {
        platform::CmiReply reply = model.serve(r);
        if (r.opcode == CALLHOME_USER_DEF_CMD_OPC && r.msg_type == GET_REQ && reply.has_record) {
            const int32_t other = be(3);
            std::memcpy(reply.record.data() + offsetof(cmi_userdef_cli_cmd_t, index), &other,
                        sizeof other);
        }
        return reply;
    });
    EXPECT_EQ(run_set({cmd(1, 2, 6)}).status, 0);
    EXPECT_EQ(sent(), std::vector<Write>{del(kCmd)});
}

TEST_F(TableWrite, UpdateOfOneGroupClearsTheFlagAndMapsTheStatus) {
    reset();
    callHomeAlertGroupEntry_t e{};
    std::strcpy(e.destination_profile_id, "old");
    std::strcpy(e.alert_group, "Diagnostic");
    e.request_flag = 7;
    EXPECT_EQ(update_cmi_alertGroups(DELETE_REQ, &e), kNoSuch); // the service has no such group
    EXPECT_EQ(sent(), std::vector<Write>{del(grp("Diagnostic"))});
    EXPECT_EQ(update_cmi_alertGroups(SET_REQ, nullptr), kGenErr);
}

TEST_F(TableWrite, PhasesOutsideTheSetAndAbsentCurrentValuesAreHarmless) {
    Varbind vb = prow("p1", 4);
    for (WriteMethod *m : {set_callHomeDestProfileStatus, set_callHomeDestProfileMsgFormat,
                           set_callHomeDestProfileMaxMsgSize, set_callHomeDestProfileTrnsprtMthd,
                           set_callHomeDestProfileMsgLevel, set_callHomeDestEmailAddress,
                           set_callHomeDestEmailAddressStatus, set_callHomeUserDefCliCmd,
                           set_callHomeUserDefCliCmdStatus, set_callhome_alertgroups}) {
        for (int action : {6, 9}) {
            EXPECT_EQ(m(action, vb.value.data(), vb.type, vb.value.size(), nullptr, vb.name.data(),
                        vb.name.size()),
                      0);
        }
    }
    EXPECT_TRUE(channel.requests().empty());
}

} // namespace
} // namespace callhome_test
