// Row and alert-group writes against the real call-home service hosted in-process: what the
// service holds after each request, refusals that leave it unchanged, and undo.
#include <gtest/gtest.h>

// The module's headers first: they declare the container type that the platform's test hooks
// name.
#include "table_write_driver.hpp"
#include "service_channel.hpp"

namespace callhome_test {
namespace {

struct PlatformReset {
    PlatformReset() { platform::reset_for_tests(); }
};

// The service's default alert-group types have the indexes 1 to 7.
constexpr u_char kConfiguration = 0x40; // type 1
constexpr u_char kDiagnostic = 0x20;    // type 2
constexpr u_char kEveryType = 0x7F;

class ServiceTableWrite : public ::testing::Test {
  protected:
    void SetUp() override {
        platform::set_snmp_context("admin", 5);
        init_callhome_mib();
    }
    void TearDown() override {
        expect_containers_empty();
        deinit_callhome_mib();
    }
    std::string dump() { return svc.admin({"dump"}).second; }
    static bool contains(const std::string &text, const std::string &part) {
        return text.find(part) != std::string::npos;
    }
    void create_profile(const std::string &name) {
        ASSERT_EQ(
            run_set({Varbind::integer(profile_oid(kProfileStatus, name), RS_CREATEANDGO)}).status,
            0);
    }

    PlatformReset reset_;
    ServiceChannel svc;
};

TEST_F(ServiceTableWrite, ProfilesAreCreatedModifiedAndDestroyed) {
    ASSERT_EQ(run_set({Varbind::integer(profile_oid(kProfileStatus, "p1"), RS_CREATEANDGO),
                       Varbind::integer(profile_oid(kFormat, "p1"), 3),
                       Varbind::integer(profile_oid(kLevel, "p1"), 4)})
                  .status,
              0);
    EXPECT_EQ(read_number(profile_oid(kFormat, "p1")), 3);
    EXPECT_EQ(read_number(profile_oid(kMaxSize, "p1")), 4000);
    EXPECT_EQ(read_number(profile_oid(kTransport, "p1")), 1);
    EXPECT_EQ(read_number(profile_oid(kProfileStatus, "p1")), RS_ACTIVE);
    EXPECT_EQ(read_number(profile_oid(kLevel, "p1")), 4);

    // Columns before the status column, and an explicit size of 0: the default size.
    ASSERT_EQ(run_set({Varbind::gauge(profile_oid(kMaxSize, "p2"), 0),
                       Varbind::integer(profile_oid(kTransport, "p2"), 1),
                       Varbind::integer(profile_oid(kProfileStatus, "p2"), RS_CREATEANDGO)})
                  .status,
              0);
    EXPECT_EQ(read_number(profile_oid(kMaxSize, "p2")), 500000);

    // Existing rows take column writes one at a time; the other fields stay.
    ASSERT_EQ(run_set({Varbind::gauge(profile_oid(kMaxSize, "p1"), 1000000)}).status, 0);
    ASSERT_EQ(run_set({Varbind::integer(profile_oid(kFormat, "p1"), 2)}).status, 0);
    EXPECT_EQ(read_number(profile_oid(kMaxSize, "p1")), 1000000);
    EXPECT_EQ(read_number(profile_oid(kFormat, "p1")), 2);
    EXPECT_EQ(read_number(profile_oid(kLevel, "p1")), 4);

    ASSERT_EQ(run_set({Varbind::integer(profile_oid(kProfileStatus, "p1"), RS_DESTROY)}).status, 0);
    EXPECT_EQ(read_number(profile_oid(kFormat, "p1")), -1);
    EXPECT_EQ(read_number(profile_oid(kFormat, "p2")), 1);
}

TEST_F(ServiceTableWrite, RefusalsLeaveTheServiceUnchanged) {
    create_profile("ops");
    ASSERT_EQ(run_set({Varbind::integer(email_oid(kEmailStatus, "ops", 1), RS_CREATEANDGO),
                       Varbind::octets(email_oid(kEmailAddr, "ops", 1), "a@ops.example")})
                  .status,
              0);
    struct Case {
        const char *what;
        std::vector<Varbind> vbs;
        int status;
    };
    const Case cases[] = {
        {"create a built-in profile",
         {Varbind::integer(profile_oid(kProfileStatus, "xml"), RS_CREATEANDGO)},
         SNMP_ERR_INCONSISTENTVALUE},
        {"destroy a built-in profile",
         {Varbind::integer(profile_oid(kProfileStatus, "short_txt"), RS_DESTROY)},
         SNMP_ERR_GENERR},
        {"format of a built-in profile",
         {Varbind::integer(profile_oid(kFormat, "full_txt"), 3)},
         SNMP_ERR_NOTWRITABLE},
        {"trailing space",
         {Varbind::integer(profile_oid(kProfileStatus, "new "), RS_CREATEANDGO)},
         SNMP_ERR_GENERR},
        {"createAndWait",
         {Varbind::integer(profile_oid(kProfileStatus, "new"), RS_CREATEANDWAIT)},
         SNMP_ERR_INCONSISTENTVALUE},
        {"size too large",
         {Varbind::gauge(profile_oid(kMaxSize, "ops"), 1000001)},
         SNMP_ERR_WRONGVALUE},
        {"transport of an existing row",
         {Varbind::integer(profile_oid(kTransport, "ops"), 1)},
         SNMP_ERR_NOTWRITABLE},
        {"level of an unknown row",
         {Varbind::integer(profile_oid(kLevel, "new"), 2)},
         SNMP_ERR_NOSUCHNAME},
        {"address without a row",
         {Varbind::octets(email_oid(kEmailAddr, "ops", 2), "b@ops.example")},
         SNMP_ERR_INCONSISTENTVALUE},
        {"address row without address",
         {Varbind::integer(email_oid(kEmailStatus, "ops", 2), RS_CREATEANDGO)},
         SNMP_ERR_INCONSISTENTVALUE},
        {"change an existing address",
         {Varbind::octets(email_oid(kEmailAddr, "ops", 1), "c@ops.example")},
         SNMP_ERR_INCONSISTENTVALUE},
        {"command index above 5",
         {Varbind::integer(command_oid(kCommandStatus, 1, 6), RS_CREATEANDGO),
          Varbind::octets(command_oid(kCommand, 1, 6), "show clock")},
         SNMP_ERR_INCONSISTENTVALUE},
        {"command row without command",
         {Varbind::integer(command_oid(kCommandStatus, 1, 1), RS_CREATEANDGO)},
         SNMP_ERR_INCONSISTENTVALUE},
        {"good create, bad level",
         {Varbind::integer(profile_oid(kProfileStatus, "new"), RS_CREATEANDGO),
          Varbind::integer(profile_oid(kLevel, "new"), 0)},
         SNMP_ERR_WRONGVALUE},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        const std::string before = dump();
        EXPECT_EQ(run_set(c.vbs).status, c.status);
        EXPECT_EQ(dump(), before);
        expect_containers_empty();
    }
}

TEST_F(ServiceTableWrite, AFailingLaterVariableRestoresTheService) {
    create_profile("old");
    ASSERT_EQ(run_set({Varbind::integer(profile_oid(kLevel, "old"), 7)}).status, 0);
    create_profile("ops");
    ASSERT_EQ(run_set({Varbind::integer(email_oid(kEmailStatus, "ops", 3), RS_CREATEANDGO),
                       Varbind::octets(email_oid(kEmailAddr, "ops", 3), "x@ops.example")})
                  .status,
              0);
    const std::string before = dump();

    const SetResult r =
        run_set({Varbind::integer(profile_oid(kProfileStatus, "old"), RS_DESTROY),
                 Varbind::integer(profile_oid(kProfileStatus, "fresh"), RS_CREATEANDGO),
                 Varbind::integer(email_oid(kEmailStatus, "ops", 3), RS_DESTROY),
                 Varbind::integer(command_oid(kCommandStatus, 2, 1), RS_CREATEANDGO),
                 Varbind::octets(command_oid(kCommand, 2, 1), "show log"),
                 Varbind::integer(profile_oid(kFormat, "ghost"), 2)});
    EXPECT_EQ(r.status, SNMP_ERR_NOSUCHNAME) << r;
    EXPECT_EQ(r.phase, ACTION);
    EXPECT_EQ(dump(), before);
    EXPECT_EQ(read_number(profile_oid(kLevel, "old")), 7);
    EXPECT_EQ(read_text(email_oid(kEmailAddr, "ops", 3)), "x@ops.example");
}

TEST_F(ServiceTableWrite, AddressesAndCommandsLiveAndDie) {
    create_profile("ops");
    ASSERT_EQ(run_set({Varbind::integer(email_oid(kEmailStatus, "ops", 1), RS_CREATEANDGO),
                       Varbind::octets(email_oid(kEmailAddr, "ops", 1), "a@ops.example")})
                  .status,
              0);
    EXPECT_EQ(read_text(email_oid(kEmailAddr, "ops", 1)), "a@ops.example");
    EXPECT_EQ(read_number(email_oid(kEmailStatus, "ops", 1)), RS_ACTIVE);
    ASSERT_EQ(run_set({Varbind::integer(email_oid(kEmailStatus, "ops", 1), RS_DESTROY)}).status, 0);
    EXPECT_EQ(read_text(email_oid(kEmailAddr, "ops", 1)), "<none>");

    ASSERT_EQ(run_set({Varbind::integer(command_oid(kCommandStatus, 2, 5), RS_CREATEANDGO),
                       Varbind::octets(command_oid(kCommand, 2, 5), "show tech")})
                  .status,
              0);
    EXPECT_EQ(read_text(command_oid(kCommand, 2, 5)), "show tech");
    EXPECT_TRUE(contains(dump(), "show tech"));
    // A command can't be changed in place.
    EXPECT_EQ(run_set({Varbind::octets(command_oid(kCommand, 2, 5), "show run")}).status,
              SNMP_ERR_INCONSISTENTVALUE);
    ASSERT_EQ(run_set({Varbind::integer(command_oid(kCommandStatus, 2, 5), RS_DESTROY)}).status, 0);
    EXPECT_FALSE(contains(dump(), "show tech"));
}

TEST_F(ServiceTableWrite, AlertGroupsOfAProfile) {
    create_profile("ops");
    const Oid column = profile_oid(kGroups, "ops");
    auto write = [&](std::vector<u_char> v) {
        return run_set({Varbind{column, ASN_OCTET_STR, std::move(v)}}).status;
    };
    auto first_octet = [&] {
        std::vector<u_char> v;
        return read_column(column, v) && v.size() == 8 ? int(v[0]) : -1;
    };

    ASSERT_EQ(write({kConfiguration | kDiagnostic}), 0);
    EXPECT_EQ(first_octet(), kConfiguration | kDiagnostic);
    ASSERT_EQ(write({kDiagnostic}), 0);
    EXPECT_EQ(first_octet(), kDiagnostic);

    // Every type: stored as "all", after which only "none" is accepted.
    ASSERT_EQ(write({kEveryType}), 0);
    EXPECT_EQ(first_octet(), kEveryType);
    EXPECT_TRUE(contains(dump(), "\"all\""));
    const std::string before = dump();
    EXPECT_EQ(write({kConfiguration}), SNMP_ERR_WRONGVALUE);
    EXPECT_EQ(dump(), before);
    ASSERT_EQ(write({}), 0);
    EXPECT_EQ(first_octet(), 0);
    EXPECT_FALSE(contains(dump(), "\"all\""));

    EXPECT_EQ(write(std::vector<u_char>(9, 0)), SNMP_ERR_WRONGLENGTH);
}

} // namespace
} // namespace callhome_test
