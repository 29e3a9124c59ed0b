// Row writes against the real call-home service hosted in-process: refusals that depend on the
// service's answers, and UNDO putting the service back as it was, over all three tables.
// Creating, changing and destroying rows through the service is covered by the agent tests
// (tests/agent/test_agent_table_write.cpp).
#include <gtest/gtest.h>

// The module's headers first: the platform's test hooks name their container type.
#include "table_write_driver.hpp"
#include "service_channel.hpp"

namespace callhome_test {
namespace {

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

    PlatformReset reset_;
    ServiceChannel svc;
};

Varbind prof(int col, const std::string &name, long v) {
    return int_vb(profile_oid(col, name), v, col == kMaxSize ? ASN_UNSIGNED : ASN_INTEGER);
}
const auto mail = [](int i, long v) { return int_vb(email_oid(kEmailStatus, "ops", i), v); };
const auto addr = [](int i, const std::string &a) {
    return str_vb(email_oid(kEmailAddr, "ops", i), a);
};
const auto cmd = [](int t, int i, long v) { return int_vb(command_oid(kCommandStatus, t, i), v); };
const auto text = [](int t, int i, const std::string &c) {
    return str_vb(command_oid(kCommand, t, i), c);
};

// Refusals that depend on the service's answers (its built-in rows, its unknown-entry status,
// rows it holds, its deletes of rows it never had); the module's own checks are covered
// against the scripted channel.
TEST_F(ServiceTableWrite, RefusalsLeaveTheServiceUnchanged) {
    ASSERT_EQ(run_set({prof(kProfileStatus, "ops", 4)}).status, 0);
    ASSERT_EQ(run_set({mail(1, 4), addr(1, "a@ops.example")}).status, 0);
    ASSERT_EQ(run_set({cmd(1, 1, 4), text(1, 1, "show clock")}).status, 0);
    const std::pair<std::vector<Varbind>, int> cases[] = {
        {{prof(kProfileStatus, "xml", 4)}, SNMP_ERR_INCONSISTENTVALUE},
        {{prof(kProfileStatus, "short_txt", 6)}, SNMP_ERR_GENERR},
        {{prof(kLevel, "new", 2)}, SNMP_ERR_NOSUCHNAME},
        {{mail(2, 4)}, SNMP_ERR_INCONSISTENTVALUE},
        {{cmd(1, 2, 4)}, SNMP_ERR_INCONSISTENTVALUE},
        {{text(1, 1, "show run")}, SNMP_ERR_INCONSISTENTVALUE},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.first[0].name));
        const std::string before = dump();
        EXPECT_EQ(run_set(c.first).status, c.second);
        EXPECT_EQ(dump(), before);
        expect_containers_empty();
    }
}

TEST_F(ServiceTableWrite, AFailingLaterVariableRestoresTheService) {
    ASSERT_EQ(run_set({prof(kProfileStatus, "old", 4), prof(kLevel, "old", 7)}).status, 0);
    // The destroyed profile comes back with its addresses and alert groups.
    ASSERT_EQ(run_set({int_vb(email_oid(kEmailStatus, "old", 1), 4),
                       str_vb(email_oid(kEmailAddr, "old", 1), "o@ops.example")})
                  .status,
              0);
    ASSERT_EQ(run_set({str_vb(profile_oid(kGroups, "old"), "\x60")}).status, 0);
    ASSERT_NE(dump().find("o@ops.example"), std::string::npos);
    ASSERT_EQ(run_set({prof(kProfileStatus, "ops", 4)}).status, 0);
    ASSERT_EQ(run_set({mail(3, 4), addr(3, "x@ops.example")}).status, 0);
    const std::string before = dump();
    const SetResult r =
        run_set({prof(kProfileStatus, "old", 6), prof(kProfileStatus, "fresh", 4), mail(3, 6),
                 cmd(2, 1, 4), text(2, 1, "show log"), prof(kFormat, "ghost", 2)});
    EXPECT_EQ(r.status, SNMP_ERR_NOSUCHNAME);
    EXPECT_EQ(r.phase, ACTION);
    EXPECT_EQ(dump(), before);
    // Destroyed for good, it takes them along; created again, it starts without them.
    platform::set_snmp_context("admin", 6);
    ASSERT_EQ(run_set({prof(kProfileStatus, "old", 6)}).status, 0);
    platform::set_snmp_context("admin", 7);
    ASSERT_EQ(run_set({prof(kProfileStatus, "old", 4)}).status, 0);
    EXPECT_EQ(dump().find("o@ops.example"), std::string::npos);
}

} // namespace
} // namespace callhome_test
