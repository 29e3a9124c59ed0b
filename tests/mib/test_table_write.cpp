// Row writes of the profile, e-mail address and user-command tables and a profile's alert
// groups, driven through whole SET requests against a model of the service's tables: what
// reaches the service byte for byte, what each refusal answers, and what UNDO puts back.
#include <gtest/gtest.h>

#include "table_write_driver.hpp"

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
        expect_containers_empty();
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
const auto text = [](int t, int i, const std::string &c) {
    return str_vb(command_oid(kCommand, t, i), c);
};
const auto groups = [](Bytes v, const std::string &p = "old") {
    return Varbind{profile_oid(kGroups, p), ASN_OCTET_STR, std::move(v)};
};
const auto grp = [](const std::string &g) { return group_row("old", g); };

constexpr int kR1 = RESERVE1, kR2 = RESERVE2, kAct = ACTION, kGenErr = SNMP_ERR_GENERR;
constexpr int kIncons = SNMP_ERR_INCONSISTENTVALUE, kWrongValue = SNMP_ERR_WRONGVALUE,
              kNoSuch = SNMP_ERR_NOSUCHNAME, kWrongType = SNMP_ERR_WRONGTYPE,
              kWrongLen = SNMP_ERR_WRONGLENGTH;
constexpr uint8_t kConf = 0x40, kDiag = 0x20, kInv = 0x10, kAll = 0x70; // types 1, 2, 3

struct Fault { // opcode -1: the container refuses the next add
    int opcode = 0, msg_type = 0, status = 0, skip = 0;
};
struct Case {
    const char *what;
    std::vector<Varbind> vbs;
    int status, phase; // the first failure; phase -1 when none
    std::vector<Write> writes;
    int32_t error, logged; // in the error record; logged with log_set_error(status, 472)
    Fault fault;
    std::vector<Write> extra; // rows besides kOld, kMail and kCmd
    const char *err_text;     // on standard error
    Case(const char *what, std::vector<Varbind> vbs, int status, int phase,
         std::vector<Write> writes = {}, int32_t error = 0, int32_t logged = 0, Fault fault = {},
         std::vector<Write> extra = {}, const char *err_text = nullptr)
        : what(what), vbs(std::move(vbs)), status(status), phase(phase), writes(std::move(writes)),
          error(error), logged(logged), fault(fault), extra(std::move(extra)), err_text(err_text) {}
};

TEST_F(TableWrite, RequestsSendExactlyTheseWritesAndFailuresPutEverythingBack) {
    const std::string s255(255, 'x'), c599(599, 'c');
    const Case cases[] = {
        // Profiles: a created row is sent once, complete, with the defaults of its format.
        Case("create", {prow("p1", 4)}, 0, -1, {profile_row("p1")}),
        Case("create, format 3 gets the short size", {prow("p1", 4), prof(kFormat, "p1", 3)}, 0, -1,
             {profile_row("p1", 3, 4000)}),
        Case("create, explicit size 0 gets the default",
             {prow("p1", 4), prof(kFormat, "p1", 2), prof(kMaxSize, "p1", 0)}, 0, -1,
             {profile_row("p1", 2, 500000)}),
        Case("create, level one lower on the wire",
             {prow("p1", 4), prof(kMaxSize, "p1", 2000), prof(kLevel, "p1", 10)}, 0, -1,
             {profile_row("p1", 1, 2000, 9)}),
        Case("create, columns first",
             {prof(kTransport, "p1", 1), prof(kLevel, "p1", 1), prow("p1", 4)}, 0, -1,
             {profile_row("p1")}),
        Case("names like built-in ones", {prow("xmlx", 4), prow("XML", 4), prow("a b", 4)}, 0, -1,
             {profile_row("xmlx"), profile_row("XML"), profile_row("a b")}),
        // An existing row is re-sent whole with the one field changed.
        Case("level", {prof(kLevel, "old", 3)}, 0, -1, {profile_row("old", 2, 9000, 2)}),
        Case("format", {prof(kFormat, "old", 3)}, 0, -1, {profile_row("old", 3, 9000, 3)}),
        Case("size 1000000", {prof(kMaxSize, "old", 1000000)}, 0, -1,
             {profile_row("old", 2, 1000000, 3)}),
        Case("active re-sends", {prow("old", 1)}, 0, -1, {kOld}),
        Case("destroy, one row per table", {prow("old", 6), mail(7, 6), cmd(1, 2, 6)}, 0, -1,
             {del(kOld), del(kMail), del(kCmd)}),
        Case("destroy absent rows", {prow("p1", 6), mail(8, 6), cmd(1, 4, 6)}, 0, -1),
        // Addresses and commands.
        Case("address", {mail(1, 4), addr(1, "a@b.example")}, 0, -1,
             {email_row("ops", 1, "a@b.example")}),
        Case("address of 255", {mail(2, 4), addr(2, s255)}, 0, -1, {email_row("ops", 2, s255)}),
        Case("command in the service layout", {cmd(2, 3, 4), text(2, 3, "show version")}, 0, -1,
             {command_row("Diagnostic", 3, "show version")}),
        Case("command of 599", {cmd(1, 5, 4), text(1, 5, c599)}, 0, -1,
             {command_row("Configuration", 5, c599)}),
        // A later variable fails: UNDO deletes created rows and re-sends destroyed ones.
        Case("undo profiles", {prow("old", 6), prow("fresh", 4), prof(kFormat, "ghost", 2)},
             kNoSuch, kAct,
             {del(kOld), profile_row("fresh"), kOld, del(profile_row("fresh", 0, 0, 0, 0, 0))}),
        Case("undo address", {mail(7, 6), prof(kFormat, "ghost", 2)}, kNoSuch, kAct,
             {del(kMail), kMail}),
        Case("undo commands",
             {cmd(1, 2, 6), cmd(2, 1, 4), text(2, 1, "show log"), text(1, 4, "ghost")}, kNoSuch,
             kAct,
             {del(kCmd), command_row("Diagnostic", 1, "show log"), kCmd,
              del(command_row("Diagnostic", 1, "", 0))}),
        // Profile refusals.
        Case("create xml", {prow("xml", 4)}, kGenErr, kR1, {}, CALLHOME_ERR_BAD_PROFILE_NAME),
        Case("create short_txt", {prow("short_txt", 4)}, kGenErr, kR1, {},
             CALLHOME_ERR_BAD_PROFILE_NAME),
        Case("leading space", {prow(" p", 4)}, kGenErr, kR1, {}, CALLHOME_ERR_BAD_PROFILE_NAME),
        Case("trailing space", {prow("p ", 4)}, kGenErr, kR1, {}, CALLHOME_ERR_BAD_PROFILE_NAME),
        Case("destroy full_txt", {prow("full_txt", 6)}, kGenErr, kR1, {},
             CALLHOME_ERR_BUILTIN_PROFILE),
        Case("format of xml", {prof(kFormat, "xml", 2)}, SNMP_ERR_NOTWRITABLE, kR1),
        Case("create existing", {prow("old", 4)}, kIncons, kR1),
        Case("status 0", {prow("new", 0)}, kIncons, kR1),
        Case("notInService", {prow("old", 2)}, kIncons, kR1),
        Case("notReady", {prow("old", 3)}, kIncons, kR1),
        Case("createAndWait", {prow("new", 5)}, kIncons, kR1),
        Case("status 7", {prow("new", 7)}, kIncons, kR1),
        Case("status as text", {str_vb(profile_oid(kProfileStatus, "new"), "4")}, kWrongType, kR1,
             {}),
        Case("status of 5 bytes",
             {{profile_oid(kProfileStatus, "new"), ASN_INTEGER, {4, 0, 0, 0, 0}}}, kWrongLen, kR1,
             {}),
        Case("size 1000001", {prof(kMaxSize, "old", 1000001)}, kWrongValue, kR1),
        Case("size as INTEGER", {int_vb(profile_oid(kMaxSize, "old"), 10)}, kWrongType, kR1),
        Case("level 0", {prof(kLevel, "old", 0)}, kWrongValue, kR1),
        Case("level 11", {prof(kLevel, "old", 11)}, kWrongValue, kR1),
        Case("format 0", {prof(kFormat, "old", 0)}, kWrongValue, kR1),
        Case("format 4", {prof(kFormat, "old", 4)}, kWrongValue, kR1),
        Case("transport 2", {prof(kTransport, "old", 2)}, kWrongValue, kR1),
        Case("transport of an existing row", {prof(kTransport, "old", 1)}, SNMP_ERR_NOTWRITABLE,
             kR2),
        Case("column of an unknown row", {prof(kFormat, "new", 2)}, kNoSuch, kAct),
        Case("active on an unknown row", {prow("new", 1)}, kIncons, kAct),
        Case("good create, bad column", {prow("new", 4), prof(kLevel, "new", 11)}, kWrongValue, kR1,
             {}),
        // Address refusals.
        Case("no address", {mail(1, 4)}, kIncons, kAct, {del(email_row("ops", 1, "", 0))}),
        Case("address of 256", {mail(1, 4), addr(1, std::string(256, 'x'))}, kWrongLen, kR1, {}, 0,
             0, {}, {}, "write to callHomeDestEmailAddress: bad length\n"),
        Case("empty address", {mail(1, 4), addr(1, "")}, kWrongLen, kR1),
        Case("address with a trailing space", {mail(1, 4), addr(1, "a@b ")}, kWrongValue, kR1),
        Case("address as INTEGER", {int_vb(email_oid(kEmailAddr, "ops", 1), 3)}, kWrongType, kR1,
             {}, 0, 0, {}, {}, "write to callHomeDestEmailAddress not ASN_OCTET_STR\n"),
        Case("address of an existing row", {addr(7, "new@b")}, kIncons, kR2),
        Case("create existing address", {mail(7, 4)}, kIncons, kR1),
        Case("address createAndWait", {mail(1, 5)}, kIncons, kR1),
        Case("address index 0", {mail(0, 4)}, kIncons, kR1),
        Case("address of a profile with a leading space", {mail(1, 4, " ops")}, kGenErr, kR1, {},
             CALLHOME_ERR_BAD_PROFILE_NAME),
        Case("active on an unknown address", {mail(1, 1)}, kIncons, kAct),
        // Command refusals.
        Case("no command", {cmd(1, 1, 4)}, kIncons, kAct,
             {del(command_row("Configuration", 1, "", 0))}),
        Case("command of 600", {cmd(1, 1, 4), text(1, 1, std::string(600, 'c'))}, kWrongLen, kR1,
             {}),
        Case("command as INTEGER", {int_vb(command_oid(kCommand, 1, 1), 1)}, kWrongType, kR1),
        Case("command index 6", {cmd(1, 6, 4), text(1, 6, "x")}, kIncons, kR1),
        Case("destroy command index 6", {cmd(1, 6, 6)}, kIncons, kR1),
        Case("command of an unknown type", {cmd(9, 1, 4), text(9, 1, "x")}, kIncons, kR1),
        Case("change a command", {text(1, 2, "new")}, kIncons, kAct),
        Case("command of an unknown row", {text(1, 3, "new")}, kNoSuch, kAct),
        Case("create existing command", {cmd(1, 2, 4)}, kIncons, kR1),
        Case("command notInService", {cmd(1, 2, 2)}, kIncons, kR1),
        Case("active on an unknown command", {cmd(1, 3, 1)}, kIncons, kAct),
        // The service fails in ACTION.
        Case("creating SET refused", {prow("p1", 4)}, kGenErr, kAct,
             {profile_row("p1"), del(profile_row("p1", 0, 0, 0, 0, 0))}, 0, CALLHOME_ERR_NO_MEMORY,
             {CALLHOME_DEST_PROFILE_OPC, SET_REQ, CALLHOME_ERR_NO_MEMORY}),
        Case("profile read in ACTION fails", {prow("old", 6)}, kGenErr, kAct, {kOld},
             CALLHOME_ERR_INVALID_INPUT, 0,
             {CALLHOME_DEST_PROFILE_OPC, GET_REQ, CALLHOME_ERR_INVALID_INPUT, 1}),
        Case("DELETE refused as unknown", {prow("old", 6)}, kNoSuch, kAct, {del(kOld), kOld}, 0,
             CALLHOME_UNKNOWN_ENTRY,
             {CALLHOME_DEST_PROFILE_OPC, DELETE_REQ, CALLHOME_UNKNOWN_ENTRY}),
        Case("address read in ACTION fails: logged only", {mail(7, 6)}, kGenErr, kAct, {kMail}, 0,
             CALLHOME_ERR_NO_MEMORY, {CALLHOME_DEST_EMAIL_OPC, GET_REQ, CALLHOME_ERR_NO_MEMORY, 1}),
        Case("container refuses the new row", {prow("new", 4)}, kGenErr, kR1, {},
             CALLHOME_ERR_INDEX_ADD, 0, {-1}),
        Case("container refuses the undo copy", {prow("old", 6)}, kGenErr, kR1, {},
             CALLHOME_ERR_INDEX_ADD, 0, {-1}),
        // Alert groups: one SET or DELETE per group that changes; "all" for every known type.
        Case("groups: none to one", {groups({kConf})}, 0, -1, {grp("Configuration")}),
        Case("groups: swap", {groups({kDiag | kInv})}, 0, -1,
             {del(grp("Configuration")), grp("Inventory")}, 0, 0, {},
             {grp("Configuration"), grp("Diagnostic")}),
        Case("groups: some to all", {groups({kAll})}, 0, -1,
             {del(grp("Configuration")), del(grp("Inventory")), grp("all")}, 0, 0, {},
             {grp("Configuration"), grp("Inventory")}),
        Case("groups: none to all, 8 octets", {groups({kAll, 0, 0, 0, 0, 0, 0, 0})}, 0, -1,
             {grp("all")}),
        Case("groups: all to all", {groups({kAll})}, 0, -1, {}, 0, 0, {}, {grp("all")}),
        Case("groups: all to none", {groups({})}, 0, -1, {del(grp("all"))}, 0, 0, {}, {grp("all")}),
        Case("all to 00", {groups({0, 0})}, 0, -1, {del(grp("all"))}, 0, 0, {}, {grp("all")}),
        Case("groups: one to none", {groups({0})}, 0, -1, {del(grp("Diagnostic"))}, 0, 0, {},
             {grp("Diagnostic")}),
        Case("groups: unchanged", {groups({kDiag})}, 0, -1, {}, 0, 0, {}, {grp("Diagnostic")}),
        Case("groups: unknown types ignored", {groups({0x80, 0xFF})}, 0, -1),
        Case("groups: all replaced only by none", {groups({kConf})}, kWrongValue, kAct, {}, 0, 0,
             {}, {grp("all")}),
        Case("groups: 9 octets", {groups(Bytes(9, 0))}, kWrongLen, kR1),
        Case("groups as INTEGER", {int_vb(profile_oid(kGroups, "old"), 1)}, kWrongType, kR1),
        Case("groups of an unknown profile", {groups({kConf}, "nobody")}, kNoSuch, kAct),
        Case("groups: a refused SET is only logged", {groups({kConf | kDiag})}, 0, -1,
             {grp("Configuration"), grp("Diagnostic")}, 0, CALLHOME_ERR_INVALID_INPUT,
             {CALLHOME_PROFILE_ALERTGROUP_OPC, SET_REQ, CALLHOME_ERR_INVALID_INPUT}),
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        reset(c.extra);
        const auto before = model.rows;
        if (c.fault.opcode > 0) {
            model.fail(c.fault.opcode, c.fault.msg_type, c.fault.status, c.fault.skip);
        } else if (c.fault.opcode < 0) {
            platform::fail_next_indxobj_add();
        }
        testing::internal::CaptureStderr();
        const SetResult r = run_set(c.vbs);
        const std::string err = testing::internal::GetCapturedStderr();
        EXPECT_EQ(r.status, c.status);
        EXPECT_EQ(r.phase, c.phase);
        EXPECT_EQ(sent(), c.writes);
        EXPECT_EQ(platform::last_snmp_error().first, c.error);
        EXPECT_EQ(platform::last_set_error(), std::make_pair(c.logged, c.logged == 0 ? 0 : 472));
        if (c.status != 0) {
            EXPECT_EQ(model.rows, before);
        }
        if (c.err_text != nullptr) {
            EXPECT_NE(err.find(c.err_text), std::string::npos) << err;
        }
        expect_containers_empty();
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

// One representative trace per handler family; level 100 for a failure (here the container
// refusing the new row), 101 for progress.
TEST_F(TableWrite, TracesNameTheHandlerAndTheStep) {
    const std::tuple<std::vector<Varbind>, int, std::string> cases[] = {
        {{prow("new", 4)},
         100,
         "set_callHomeDestProfileStatus : Adding to entry (profile = new )to "
         "callHomeDestProfileEntry_list failed\n"},
        {{prow("p1", 4)},
         101,
         "set_callHomeDestProfileStatus : Added entry (profile = p1 ) to "
         "callHomeDestProfileEntry_list\n"},
        {{prof(kLevel, "old", 3)},
         101,
         "set_callHomeDestProfileMsgLevel : Sending SET req with destination_profile_id= "
         "old,transport_method = 1, format_method = 2, maximum_message_size = 9000, row_status = "
         "1 , msg_level = 2\n"},
        {{mail(4, 4)},
         101,
         "set_callHomeDestEmailAddressStatus : Email Address not set for entry "
         "(profile = ops,index= 4) Returning SNMP_ERR_INCONSISTENTVALUE\n"},
        {{cmd(2, 3, 4), text(2, 3, "x")},
         101,
         "set_callHomeUserDefCliCmdStatus : Added entry (index "
         "= 2, 3 ) to callHomeUserDefCliCmd_list\n"},
        {{groups({kConf})},
         101,
         "update_cmi_alertGroups : Sending SET REQ to alertGroupTable for "
         "destination_profile_id = old AlertGroup = Configuration\n"},
    };
    for (const auto &[vbs, level, text] : cases) {
        reset();
        if (level == 100) {
            platform::fail_next_indxobj_add();
        }
        run_set(vbs);
        const auto history = platform::trace_history();
        EXPECT_NE(std::find(history.begin(), history.end(), std::make_pair(level, text)),
                  history.end())
            << text;
    }
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
