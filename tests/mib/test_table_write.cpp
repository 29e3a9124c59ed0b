// Row writes of the profile, e-mail address and user-command tables, driven through whole SET
// requests against a scripted channel: what reaches the service, byte for byte, and what
// every refusal answers.
#include <gtest/gtest.h>

#include "table_write_driver.hpp"

namespace callhome_test {
namespace {

using platform::CmiRequest;

// Resets the platform before the channel installs its transport.
struct PlatformReset {
    PlatformReset() { platform::reset_for_tests(); }
};

class TableWrite : public ::testing::Test {
  protected:
    void SetUp() override {
        platform::set_snmp_context("admin", 77);
        init_callhome_mib();
        model.types = {{1, "Configuration"}, {2, "Diagnostic"}};
    }
    void TearDown() override {
        expect_containers_empty();
        deinit_callhome_mib();
        channel.clear();
    }

    // The write requests of the last request, checked for the channel arguments of a write.
    std::vector<CmiRequest> sent() const {
        auto w = writes(channel);
        for (const auto &r : w) {
            EXPECT_FALSE(r.wants_record);
            EXPECT_EQ(r.user, "admin");
            EXPECT_EQ(r.session, 77u);
            EXPECT_EQ(r.client, 66);
            EXPECT_EQ(r.wait, 10);
        }
        // Every write is bracketed for the process monitor; reads are not.
        std::vector<int> beats;
        for (size_t i = 0; i < w.size(); ++i) {
            beats.insert(beats.end(), {1, 0});
        }
        EXPECT_EQ(platform::heartbeat_log(), beats);
        return w;
    }
    // SET requests among the writes: a refusal may still send UNDO's DELETE of a row that a
    // createAndGo might have made, but never a SET.
    size_t sets_sent() const {
        size_t n = 0;
        for (const auto &r : sent()) {
            n += r.msg_type == SET_REQ;
        }
        return n;
    }
    void forget() {
        channel.clear();
        platform::clear_heartbeat_log();
        platform::clear_errors();
    }

    PlatformReset reset_;
    FakeChannel channel;
    TableModel model{channel};
};

callHomeDestProfileEntry_t profile_record(const std::string &name, int transport, int format,
                                          uint32_t size, int status, int8_t level) {
    callHomeDestProfileEntry_t p{};
    std::strncpy(p.destination_profile_id, name.c_str(), sizeof p.destination_profile_id - 1);
    p.transport_method = transport;
    p.format_method = format;
    p.maximum_message_size = size;
    p.row_status = status;
    p.msg_level = level;
    return p;
}

std::vector<uint8_t> bytes_of(const void *p, size_t n) {
    const auto *b = static_cast<const uint8_t *>(p);
    return std::vector<uint8_t>(b, b + n);
}

std::vector<uint8_t> profile_wire(const callHomeDestProfileEntry_t &p) {
    auto w = profile_to_wire(p);
    return bytes_of(&w, sizeof w);
}

Varbind status_vb(const std::string &name, long v) {
    return Varbind::integer(profile_oid(kProfileStatus, name), v);
}

// ---- Destination profiles ------------------------------------------------------------------

struct CreateCase {
    const char *what;
    std::vector<Varbind> columns; // besides createAndGo of "p1"
    bool columns_first;
    callHomeDestProfileEntry_t expected;
};

TEST_F(TableWrite, CreateAndGoSendsOneDefaultedRow) {
    const CreateCase cases[] = {
        {"defaults only", {}, false, profile_record("p1", 1, 1, 500000, 1, 0)},
        {"short format gets the short size",
         {Varbind::integer(profile_oid(kFormat, "p1"), 3)},
         false,
         profile_record("p1", 1, 3, 4000, 1, 0)},
        {"explicit size 0 still gets the default",
         {Varbind::integer(profile_oid(kFormat, "p1"), 2),
          Varbind::gauge(profile_oid(kMaxSize, "p1"), 0)},
         false,
         profile_record("p1", 1, 2, 500000, 1, 0)},
        {"size and level as given, level one lower on the wire",
         {Varbind::gauge(profile_oid(kMaxSize, "p1"), 2000),
          Varbind::integer(profile_oid(kLevel, "p1"), 10)},
         false,
         profile_record("p1", 1, 1, 2000, 1, 9)},
        {"columns before the status column",
         {Varbind::integer(profile_oid(kTransport, "p1"), 1),
          Varbind::integer(profile_oid(kLevel, "p1"), 1)},
         true,
         profile_record("p1", 1, 1, 500000, 1, 0)},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        model.profiles.clear();
        forget();
        std::vector<Varbind> vbs = c.columns;
        if (c.columns_first) {
            vbs.push_back(status_vb("p1", RS_CREATEANDGO));
        } else {
            vbs.insert(vbs.begin(), status_vb("p1", RS_CREATEANDGO));
        }
        ASSERT_EQ(run_set(vbs).status, SNMP_ERR_NOERROR);
        // The new row goes to the service once, complete.
        auto w = sent();
        ASSERT_EQ(w.size(), 1u);
        EXPECT_EQ(w[0].opcode, CALLHOME_DEST_PROFILE_OPC);
        EXPECT_EQ(w[0].msg_type, SET_REQ);
        EXPECT_EQ(w[0].record, profile_wire(c.expected));
        ASSERT_EQ(model.profiles.count("p1"), 1u);
        const auto &stored = model.profiles["p1"];
        EXPECT_EQ(int(stored.format_method), int(c.expected.format_method));
        EXPECT_EQ(uint32_t(stored.maximum_message_size), uint32_t(c.expected.maximum_message_size));
        EXPECT_EQ(stored.msg_level, c.expected.msg_level);
        expect_containers_empty();
    }
}

TEST_F(TableWrite, ColumnWriteResendsTheWholeExistingRow) {
    model.add_profile("p1", 2, 7000);
    model.profiles["p1"].msg_level = 4;
    ASSERT_EQ(run_set({Varbind::integer(profile_oid(kLevel, "p1"), 3)}).status, 0);
    auto w = sent();
    ASSERT_EQ(w.size(), 1u);
    EXPECT_EQ(w[0].msg_type, SET_REQ);
    EXPECT_EQ(w[0].record, profile_wire(profile_record("p1", 1, 2, 7000, 1, 2)));

    forget();
    ASSERT_EQ(run_set({Varbind::gauge(profile_oid(kMaxSize, "p1"), 1000000)}).status, 0);
    ASSERT_EQ(sent().size(), 1u);
    EXPECT_EQ(uint32_t(model.profiles["p1"].maximum_message_size), 1000000u);
}

TEST_F(TableWrite, ActiveResendsAndDestroyDeletesAnExistingRow) {
    model.add_profile("p1", 3, 4000);
    const auto before = profile_wire(model.profiles["p1"]);

    ASSERT_EQ(run_set({status_vb("p1", RS_ACTIVE)}).status, 0);
    auto w = sent();
    ASSERT_EQ(w.size(), 1u);
    EXPECT_EQ(w[0].msg_type, SET_REQ);
    EXPECT_EQ(w[0].record, before);

    forget();
    ASSERT_EQ(run_set({status_vb("p1", RS_DESTROY)}).status, 0);
    w = sent();
    ASSERT_EQ(w.size(), 1u);
    EXPECT_EQ(w[0].msg_type, DELETE_REQ);
    EXPECT_EQ(w[0].record, before);
    EXPECT_EQ(model.profiles.count("p1"), 0u);

    // Destroying a row that doesn't exist succeeds without a request.
    forget();
    ASSERT_EQ(run_set({status_vb("p1", RS_DESTROY)}).status, 0);
    EXPECT_TRUE(sent().empty());
}

struct Refusal {
    const char *what;
    std::vector<Varbind> vbs;
    int status;
    int phase;
    int32_t error_record; // status in the error record, 0 when none is reported
};

TEST_F(TableWrite, ProfileRefusalsChangeNothing) {
    const Refusal cases[] = {
        {"create xml",
         {status_vb("xml", RS_CREATEANDGO)},
         SNMP_ERR_GENERR,
         RESERVE1,
         CALLHOME_ERR_BAD_PROFILE_NAME},
        {"create full_txt",
         {status_vb("full_txt", RS_CREATEANDGO)},
         SNMP_ERR_GENERR,
         RESERVE1,
         CALLHOME_ERR_BAD_PROFILE_NAME},
        {"create short_txt",
         {status_vb("short_txt", RS_CREATEANDGO)},
         SNMP_ERR_GENERR,
         RESERVE1,
         CALLHOME_ERR_BAD_PROFILE_NAME},
        {"leading space",
         {status_vb(" p", RS_CREATEANDGO)},
         SNMP_ERR_GENERR,
         RESERVE1,
         CALLHOME_ERR_BAD_PROFILE_NAME},
        {"trailing space",
         {status_vb("p ", RS_CREATEANDGO)},
         SNMP_ERR_GENERR,
         RESERVE1,
         CALLHOME_ERR_BAD_PROFILE_NAME},
        {"destroy xml",
         {status_vb("xml", RS_DESTROY)},
         SNMP_ERR_GENERR,
         RESERVE1,
         CALLHOME_ERR_BUILTIN_PROFILE},
        {"format of xml",
         {Varbind::integer(profile_oid(kFormat, "xml"), 2)},
         SNMP_ERR_NOTWRITABLE,
         RESERVE1,
         0},
        {"createAndGo of an existing row",
         {status_vb("old", RS_CREATEANDGO)},
         SNMP_ERR_INCONSISTENTVALUE,
         RESERVE1,
         0},
        {"notInService",
         {status_vb("old", RS_NOTINSERVICE)},
         SNMP_ERR_INCONSISTENTVALUE,
         RESERVE1,
         0},
        {"notReady", {status_vb("old", RS_NOTREADY)}, SNMP_ERR_INCONSISTENTVALUE, RESERVE1, 0},
        {"createAndWait",
         {status_vb("new", RS_CREATEANDWAIT)},
         SNMP_ERR_INCONSISTENTVALUE,
         RESERVE1,
         0},
        {"status 0", {status_vb("new", 0)}, SNMP_ERR_INCONSISTENTVALUE, RESERVE1, 0},
        {"status 7", {status_vb("new", 7)}, SNMP_ERR_INCONSISTENTVALUE, RESERVE1, 0},
        {"status as text",
         {Varbind::octets(profile_oid(kProfileStatus, "new"), "4")},
         SNMP_ERR_WRONGTYPE,
         RESERVE1,
         0},
        {"status of 5 bytes",
         {Varbind{profile_oid(kProfileStatus, "new"), ASN_INTEGER, {4, 0, 0, 0, 0}}},
         SNMP_ERR_WRONGLENGTH,
         RESERVE1,
         0},
        {"size above 1000000",
         {Varbind::gauge(profile_oid(kMaxSize, "old"), 1000001)},
         SNMP_ERR_WRONGVALUE,
         RESERVE1,
         0},
        {"size as INTEGER",
         {Varbind::integer(profile_oid(kMaxSize, "old"), 10)},
         SNMP_ERR_WRONGTYPE,
         RESERVE1,
         0},
        {"level 0",
         {Varbind::integer(profile_oid(kLevel, "old"), 0)},
         SNMP_ERR_WRONGVALUE,
         RESERVE1,
         0},
        {"level 11",
         {Varbind::integer(profile_oid(kLevel, "old"), 11)},
         SNMP_ERR_WRONGVALUE,
         RESERVE1,
         0},
        {"format 0",
         {Varbind::integer(profile_oid(kFormat, "old"), 0)},
         SNMP_ERR_WRONGVALUE,
         RESERVE1,
         0},
        {"format 4",
         {Varbind::integer(profile_oid(kFormat, "old"), 4)},
         SNMP_ERR_WRONGVALUE,
         RESERVE1,
         0},
        {"transport 2",
         {Varbind::integer(profile_oid(kTransport, "old"), 2)},
         SNMP_ERR_WRONGVALUE,
         RESERVE1,
         0},
        {"transport of an existing row",
         {Varbind::integer(profile_oid(kTransport, "old"), 1)},
         SNMP_ERR_NOTWRITABLE,
         RESERVE2,
         0},
        {"column of an unknown row",
         {Varbind::integer(profile_oid(kFormat, "new"), 2)},
         SNMP_ERR_NOSUCHNAME,
         ACTION,
         0},
        {"active on an unknown row",
         {status_vb("new", RS_ACTIVE)},
         SNMP_ERR_INCONSISTENTVALUE,
         ACTION,
         0},
        {"good create, bad column",
         {status_vb("new", RS_CREATEANDGO), Varbind::integer(profile_oid(kLevel, "new"), 11)},
         SNMP_ERR_WRONGVALUE,
         RESERVE1,
         0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        model.profiles.clear();
        model.add_profile("old", 2, 9000);
        const auto before = model.profiles;
        forget();
        const SetResult r = run_set(c.vbs);
        EXPECT_EQ(r.status, c.status) << r;
        EXPECT_EQ(r.phase, c.phase) << r;
        EXPECT_EQ(platform::last_snmp_error().first, c.error_record);
        EXPECT_EQ(sets_sent(), 0u);
        EXPECT_EQ(model.profiles.size(), before.size());
        EXPECT_EQ(model.profiles.count("new"), 0u);
        expect_containers_empty();
    }
}

TEST_F(TableWrite, OrdinaryNamesThatResembleBuiltInOnesAreAccepted) {
    for (const char *name : {"xmlx", "full_txt2", "a b", "XML"}) {
        SCOPED_TRACE(name);
        forget();
        EXPECT_EQ(run_set({status_vb(name, RS_CREATEANDGO)}).status, 0);
        EXPECT_EQ(model.profiles.count(name), 1u);
    }
}

TEST_F(TableWrite, FailureInALaterVariableUndoesDestroyAndCreate) {
    model.add_profile("keep", 3, 4000);
    model.profiles["keep"].msg_level = 5;
    const auto kept = profile_wire(model.profiles["keep"]);
    const SetResult r = run_set({status_vb("keep", RS_DESTROY), status_vb("fresh", RS_CREATEANDGO),
                                 Varbind::integer(profile_oid(kFormat, "ghost"), 2)});
    EXPECT_EQ(r.status, SNMP_ERR_NOSUCHNAME) << r;
    EXPECT_EQ(r.phase, ACTION);
    auto w = sent();
    ASSERT_EQ(w.size(), 4u);
    EXPECT_EQ(w[0].msg_type, DELETE_REQ); // ACTION: destroy keep
    EXPECT_EQ(w[1].msg_type, SET_REQ);    // ACTION: create fresh
    EXPECT_EQ(w[2].msg_type, SET_REQ);    // UNDO: keep sent back as it was
    EXPECT_EQ(w[2].record, kept);
    EXPECT_EQ(w[3].msg_type, DELETE_REQ); // UNDO: fresh deleted again
    EXPECT_EQ(profile_from_wire(w[3].record).destination_profile_id, std::string("fresh"));
    ASSERT_EQ(model.profiles.count("keep"), 1u);
    EXPECT_EQ(model.profiles.count("fresh"), 0u);
    EXPECT_EQ(model.profiles["keep"].msg_level, 5);
}

TEST_F(TableWrite, ServiceFailuresInActionAreLoggedAndMapped) {
    // The creating SET fails: logged, genErr, and UNDO deletes whatever may have been made.
    model.fail(CALLHOME_DEST_PROFILE_OPC, SET_REQ, CALLHOME_ERR_NO_MEMORY);
    SetResult r = run_set({status_vb("p1", RS_CREATEANDGO)});
    EXPECT_EQ(r.status, SNMP_ERR_GENERR);
    EXPECT_EQ(platform::last_set_error(), std::make_pair(int32_t(CALLHOME_ERR_NO_MEMORY), 472));
    auto w = sent();
    ASSERT_EQ(w.size(), 2u);
    EXPECT_EQ(w[1].msg_type, DELETE_REQ);

    // The read of the row fails (the read handler's GET passes, ACTION's doesn't): the error
    // record carries the status.
    forget();
    model.add_profile("p2");
    model.fail(CALLHOME_DEST_PROFILE_OPC, GET_REQ, CALLHOME_ERR_INVALID_INPUT, 1);
    r = run_set({status_vb("p2", RS_DESTROY)});
    EXPECT_EQ(r.status, SNMP_ERR_GENERR);
    EXPECT_EQ(r.phase, ACTION);
    EXPECT_EQ(platform::last_snmp_error().first, CALLHOME_ERR_INVALID_INPUT);
    // UNDO sends the unchanged copy back; nothing was deleted.
    EXPECT_EQ(model.profiles.count("p2"), 1u);

    // A DELETE refused by the service: noSuchName maps from its unknown-entry status.
    forget();
    model.fail(CALLHOME_DEST_PROFILE_OPC, DELETE_REQ, CALLHOME_UNKNOWN_ENTRY);
    r = run_set({status_vb("p2", RS_DESTROY)});
    EXPECT_EQ(r.status, SNMP_ERR_NOSUCHNAME);
    EXPECT_EQ(platform::last_set_error().first, CALLHOME_UNKNOWN_ENTRY);
}

TEST_F(TableWrite, ContainerRefusalIsReportedAndLeavesNothing) {
    model.add_profile("old");
    for (auto vb : {status_vb("new", RS_CREATEANDGO), status_vb("old", RS_DESTROY)}) {
        forget();
        platform::fail_next_indxobj_add();
        const SetResult r = run_set({vb});
        EXPECT_EQ(r.status, SNMP_ERR_GENERR);
        EXPECT_EQ(r.phase, RESERVE1);
        EXPECT_EQ(platform::last_snmp_error().first, CALLHOME_ERR_INDEX_ADD);
        EXPECT_TRUE(sent().empty());
        expect_containers_empty();
    }
}

TEST_F(TableWrite, PhasesOutsideTheSetAndAbsentValuesAreHarmless) {
    // An action number above UNDO is ignored by every handler.
    const Varbind vb = status_vb("p1", RS_CREATEANDGO);
    for (WriteMethod *m : {set_callHomeDestProfileStatus, set_callHomeDestProfileMsgFormat,
                           set_callHomeDestProfileMaxMsgSize, set_callHomeDestProfileTrnsprtMthd,
                           set_callHomeDestProfileMsgLevel, set_callHomeDestEmailAddress,
                           set_callHomeDestEmailAddressStatus, set_callHomeUserDefCliCmd,
                           set_callHomeUserDefCliCmdStatus, set_callhome_alertgroups}) {
        EXPECT_EQ(write_phase(m, 6, vb), 0);
        EXPECT_EQ(write_phase(m, 9, vb), 0);
    }
    // RESERVE2 of a RowStatus column with no current value (createAndGo) writes nothing.
    EXPECT_EQ(write_phase(set_callHomeDestProfileStatus, RESERVE2, vb, nullptr), 0);
    EXPECT_EQ(write_phase(set_callHomeDestEmailAddressStatus, RESERVE2, vb, nullptr), 0);
    EXPECT_EQ(write_phase(set_callHomeUserDefCliCmdStatus, RESERVE2, vb, nullptr), 0);
    EXPECT_TRUE(channel.requests().empty());
}

// ---- Destination e-mail addresses -------------------------------------------------------

Varbind email_status(const std::string &p, int i, long v) {
    return Varbind::integer(email_oid(kEmailStatus, p, i), v);
}
Varbind email_addr(const std::string &p, int i, const std::string &a) {
    return Varbind::octets(email_oid(kEmailAddr, p, i), a);
}

TEST_F(TableWrite, EmailCreateAndGoSendsTheAddressRow) {
    ASSERT_EQ(run_set({email_status("ops", 1, RS_CREATEANDGO), email_addr("ops", 1, "a@b.example")})
                  .status,
              0);
    auto w = sent();
    ASSERT_EQ(w.size(), 1u);
    EXPECT_EQ(w[0].opcode, CALLHOME_DEST_EMAIL_OPC);
    EXPECT_EQ(w[0].msg_type, SET_REQ);
    callHomeDestEmailAddressEntry_t expected{};
    std::strcpy(expected.destination_profile_id, "ops");
    std::strcpy(expected.email_addr, "a@b.example");
    expected.index = 1;
    expected.row_status = 1;
    auto wire = email_to_wire(expected);
    EXPECT_EQ(w[0].record, bytes_of(&wire, sizeof wire));

    // A 255-byte address is accepted.
    forget();
    const std::string longest(255, 'x');
    ASSERT_EQ(
        run_set({email_status("ops", 2, RS_CREATEANDGO), email_addr("ops", 2, longest)}).status, 0);
    EXPECT_EQ(std::string(model.emails[{"ops", 2}].email_addr), longest);
}

TEST_F(TableWrite, EmailRefusals) {
    struct Case {
        const char *what;
        std::vector<Varbind> vbs;
        int status;
        int phase;
        const char *stderr_text;
    };
    const Case cases[] = {
        {"no address",
         {email_status("ops", 1, RS_CREATEANDGO)},
         SNMP_ERR_INCONSISTENTVALUE,
         ACTION,
         ""},
        {"256 bytes",
         {email_status("ops", 1, RS_CREATEANDGO), email_addr("ops", 1, std::string(256, 'x'))},
         SNMP_ERR_WRONGLENGTH,
         RESERVE1,
         "write to callHomeDestEmailAddress: bad length\n"},
        {"empty",
         {email_status("ops", 1, RS_CREATEANDGO), email_addr("ops", 1, "")},
         SNMP_ERR_WRONGLENGTH,
         RESERVE1,
         "write to callHomeDestEmailAddress: bad length\n"},
        {"trailing space",
         {email_status("ops", 1, RS_CREATEANDGO), email_addr("ops", 1, "a@b ")},
         SNMP_ERR_WRONGVALUE,
         RESERVE1,
         ""},
        {"as INTEGER",
         {Varbind::integer(email_oid(kEmailAddr, "ops", 1), 3)},
         SNMP_ERR_WRONGTYPE,
         RESERVE1,
         "write to callHomeDestEmailAddress not ASN_OCTET_STR\n"},
        {"address of an existing row",
         {email_addr("ops", 7, "new@b")},
         SNMP_ERR_INCONSISTENTVALUE,
         RESERVE2,
         ""},
        {"createAndGo of an existing row",
         {email_status("ops", 7, RS_CREATEANDGO)},
         SNMP_ERR_INCONSISTENTVALUE,
         RESERVE1,
         ""},
        {"createAndWait",
         {email_status("ops", 1, RS_CREATEANDWAIT)},
         SNMP_ERR_INCONSISTENTVALUE,
         RESERVE1,
         ""},
        {"index 0",
         {email_status("ops", 0, RS_CREATEANDGO)},
         SNMP_ERR_INCONSISTENTVALUE,
         RESERVE1,
         ""},
        {"profile with a leading space",
         {email_status(" ops", 1, RS_CREATEANDGO)},
         SNMP_ERR_GENERR,
         RESERVE1,
         ""},
        {"active on an unknown row",
         {email_status("ops", 1, RS_ACTIVE)},
         SNMP_ERR_INCONSISTENTVALUE,
         ACTION,
         ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        model.emails.clear();
        model.add_email("ops", 7, "old@b");
        forget();
        testing::internal::CaptureStderr();
        const SetResult r = run_set(c.vbs);
        const std::string err = testing::internal::GetCapturedStderr();
        EXPECT_EQ(r.status, c.status) << r;
        EXPECT_EQ(r.phase, c.phase) << r;
        if (*c.stderr_text != '\0') {
            EXPECT_NE(err.find(c.stderr_text), std::string::npos) << err;
        } else {
            EXPECT_EQ(err.find("write to callHomeDestEmailAddress"), std::string::npos) << err;
        }
        EXPECT_EQ(sets_sent(), 0u);
        EXPECT_EQ(model.emails.size(), 1u);
        EXPECT_EQ(std::string(model.emails[{"ops", 7}].email_addr), "old@b");
        expect_containers_empty();
    }
}

TEST_F(TableWrite, EmailDestroyAndUndo) {
    model.add_email("ops", 7, "old@b");
    // Destroy of an unknown row: no request.
    ASSERT_EQ(run_set({email_status("ops", 8, RS_DESTROY)}).status, 0);
    EXPECT_TRUE(sent().empty());

    // Destroy, then a later variable fails: the row is sent back as it was.
    forget();
    const SetResult r = run_set(
        {email_status("ops", 7, RS_DESTROY), Varbind::integer(profile_oid(kFormat, "none"), 2)});
    EXPECT_EQ(r.status, SNMP_ERR_NOSUCHNAME);
    auto w = sent();
    ASSERT_EQ(w.size(), 2u);
    EXPECT_EQ(w[0].msg_type, DELETE_REQ);
    EXPECT_EQ(w[1].msg_type, SET_REQ);
    EXPECT_EQ(w[1].record, w[0].record);
    EXPECT_EQ(std::string(model.emails[{"ops", 7}].email_addr), "old@b");

    // A service failure of the read in ACTION is only logged (no error record).
    forget();
    model.fail(CALLHOME_DEST_EMAIL_OPC, GET_REQ, CALLHOME_ERR_NO_MEMORY, 1);
    EXPECT_EQ(run_set({email_status("ops", 7, RS_DESTROY)}).status, SNMP_ERR_GENERR);
    EXPECT_EQ(platform::last_set_error().first, CALLHOME_ERR_NO_MEMORY);
    EXPECT_EQ(platform::last_snmp_error().first, 0);
}

// ---- User-defined commands --------------------------------------------------------------

Varbind command_status(int t, int i, long v) {
    return Varbind::integer(command_oid(kCommandStatus, t, i), v);
}
Varbind command_text(int t, int i, const std::string &c) {
    return Varbind::octets(command_oid(kCommand, t, i), c);
}

TEST_F(TableWrite, CommandCreateAndGoSendsTheServiceLayout) {
    ASSERT_EQ(
        run_set({command_status(2, 3, RS_CREATEANDGO), command_text(2, 3, "show version")}).status,
        0);
    auto w = sent();
    ASSERT_EQ(w.size(), 1u);
    EXPECT_EQ(w[0].opcode, CALLHOME_USER_DEF_CMD_OPC);
    EXPECT_EQ(w[0].msg_type, SET_REQ);
    ASSERT_EQ(w[0].record.size(), sizeof(cmi_userdef_cli_cmd_t));
    cmi_userdef_cli_cmd_t expected{};
    expected.index = 3;
    std::strcpy(expected.alertgroup_type, "Diagnostic");
    expected.row_status = 1;
    std::strcpy(expected.cli_cmd, "show version");
    auto wire = command_to_wire(expected);
    EXPECT_EQ(w[0].record, bytes_of(&wire, sizeof wire));

    forget();
    const std::string longest(599, 'c');
    ASSERT_EQ(run_set({command_status(1, 5, RS_CREATEANDGO), command_text(1, 5, longest)}).status,
              0);
    EXPECT_EQ(std::string(model.commands[{"Configuration", 5}].cli_cmd), longest);
}

TEST_F(TableWrite, CommandRefusals) {
    const Refusal cases[] = {
        {"no command",
         {command_status(1, 1, RS_CREATEANDGO)},
         SNMP_ERR_INCONSISTENTVALUE,
         ACTION,
         0},
        {"600 bytes",
         {command_status(1, 1, RS_CREATEANDGO), command_text(1, 1, std::string(600, 'c'))},
         SNMP_ERR_WRONGLENGTH,
         RESERVE1,
         0},
        {"as INTEGER",
         {Varbind::integer(command_oid(kCommand, 1, 1), 1)},
         SNMP_ERR_WRONGTYPE,
         RESERVE1,
         0},
        {"index above 5",
         {command_status(1, 6, RS_CREATEANDGO), command_text(1, 6, "x")},
         SNMP_ERR_INCONSISTENTVALUE,
         RESERVE1,
         0},
        {"destroy above 5",
         {command_status(1, 6, RS_DESTROY)},
         SNMP_ERR_INCONSISTENTVALUE,
         RESERVE1,
         0},
        {"unknown type",
         {command_status(9, 1, RS_CREATEANDGO), command_text(9, 1, "x")},
         SNMP_ERR_INCONSISTENTVALUE,
         RESERVE1,
         0},
        {"change an existing command",
         {command_text(1, 2, "new")},
         SNMP_ERR_INCONSISTENTVALUE,
         ACTION,
         0},
        {"command of an unknown row", {command_text(1, 3, "new")}, SNMP_ERR_NOSUCHNAME, ACTION, 0},
        {"createAndGo of an existing row",
         {command_status(1, 2, RS_CREATEANDGO)},
         SNMP_ERR_INCONSISTENTVALUE,
         RESERVE1,
         0},
        {"notInService",
         {command_status(1, 2, RS_NOTINSERVICE)},
         SNMP_ERR_INCONSISTENTVALUE,
         RESERVE1,
         0},
        {"active on an unknown row",
         {command_status(1, 3, RS_ACTIVE)},
         SNMP_ERR_INCONSISTENTVALUE,
         ACTION,
         0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        model.commands.clear();
        model.add_command("Configuration", 2, "show clock");
        forget();
        const SetResult r = run_set(c.vbs);
        EXPECT_EQ(r.status, c.status) << r;
        EXPECT_EQ(r.phase, c.phase) << r;
        EXPECT_EQ(sets_sent(), 0u);
        EXPECT_EQ(model.commands.size(), 1u);
        EXPECT_EQ(std::string(model.commands[{"Configuration", 2}].cli_cmd), "show clock");
        expect_containers_empty();
    }
}

TEST_F(TableWrite, CommandDestroyAndUndo) {
    model.add_command("Configuration", 2, "show clock");
    const SetResult r =
        run_set({command_status(1, 2, RS_DESTROY), command_status(2, 1, RS_CREATEANDGO),
                 command_text(2, 1, "show log"), command_text(1, 4, "ghost")});
    EXPECT_EQ(r.status, SNMP_ERR_NOSUCHNAME) << r;
    auto w = sent();
    ASSERT_EQ(w.size(), 4u);
    EXPECT_EQ(w[0].msg_type, DELETE_REQ);
    EXPECT_EQ(w[1].msg_type, SET_REQ);
    EXPECT_EQ(w[2].msg_type, SET_REQ); // UNDO of the destroy
    EXPECT_EQ(command_from_wire(w[2].record).cli_cmd, std::string("show clock"));
    EXPECT_EQ(w[3].msg_type, DELETE_REQ); // UNDO of the creation
    EXPECT_EQ(int(command_from_wire(w[3].record).index), 1);
    EXPECT_EQ(model.commands.size(), 1u);
    EXPECT_EQ(std::string(model.commands[{"Configuration", 2}].cli_cmd), "show clock");

    forget();
    ASSERT_EQ(run_set({command_status(1, 2, RS_DESTROY)}).status, 0);
    EXPECT_TRUE(model.commands.empty());
}

} // namespace
} // namespace callhome_test

namespace callhome_test {
namespace {

bool traced(int level, const std::string &text) {
    for (const auto &[l, t] : platform::trace_history()) {
        if (l == level && t == text) {
            return true;
        }
    }
    return false;
}

TEST_F(TableWrite, TracesNameTheHandlerAndTheStep) {
    platform::clear_trace_history();
    ASSERT_EQ(run_set({status_vb("p1", RS_CREATEANDGO)}).status, 0);
    const std::string fn = "set_callHomeDestProfileStatus";
    EXPECT_TRUE(
        traced(101, fn + " : Added entry (profile = p1 ) to callHomeDestProfileEntry_list\n"));
    EXPECT_TRUE(traced(101, fn + " : RESERVE1 -- done \n"));
    EXPECT_TRUE(traced(101, fn + " : ACTION -- get REQ ret code is UNKNOWN ENTRY \n"));
    EXPECT_TRUE(traced(
        101, fn + " : Retrieve  entry (profile = p1 ),from callHomeDestProfileEntry_list\n"));
    EXPECT_TRUE(traced(
        101, fn + " : max msg size not set for entry (profile = p1) set the default value \n"));
    EXPECT_TRUE(traced(101, fn + " : ACTION -- sending SET REQ \n"));

    platform::clear_trace_history();
    platform::fail_next_indxobj_add();
    ASSERT_EQ(run_set({status_vb("p2", RS_CREATEANDGO)}).status, SNMP_ERR_GENERR);
    EXPECT_TRUE(traced(
        100, fn + " : Adding to entry (profile = p2 )to callHomeDestProfileEntry_list failed\n"));
    EXPECT_TRUE(traced(101, fn + " : In FREE:\n"));

    platform::clear_trace_history();
    ASSERT_EQ(run_set({Varbind::integer(email_oid(kEmailStatus, "p1", 4), RS_CREATEANDGO)}).status,
              SNMP_ERR_INCONSISTENTVALUE);
    EXPECT_TRUE(traced(101, "set_callHomeDestEmailAddressStatus : Email Address not set for entry "
                            "(profile = p1,index= 4) Returning SNMP_ERR_INCONSISTENTVALUE\n"));
}

} // namespace
} // namespace callhome_test
