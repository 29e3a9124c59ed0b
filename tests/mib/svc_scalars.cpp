// Scalar reads and writes against the real service logic: what a write stores is what the
// next read shows, and the service's refusals come back as SNMP errors with their text.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "callhome_mib.h"
#include "service_channel.hpp"
#include "syserr.h"

namespace {

using callhome_test::ServiceChannel;

// A GET of one scalar, as the agent makes it before and after a write.
struct Read {
    u_char *value = nullptr;
    size_t len = 0;
    WriteMethod *write_method = nullptr;

    long number() const {
        long v = 0;
        memcpy(&v, value, len == 4 ? 4 : sizeof v);
        return len == 4 ? static_cast<int32_t>(v) : v;
    }
    std::string text() const { return std::string(reinterpret_cast<char *>(value), len); }
};

Read get(u_char magic) {
    for (const auto &entry : callhome_mib_variables) {
        if (entry.magic != magic) {
            continue;
        }
        struct variable vp {};
        vp.magic = entry.magic;
        vp.type = entry.type;
        vp.acl = entry.acl;
        vp.findVar = entry.findVar;
        memcpy(vp.name, callhome_mib_variables_oid, sizeof callhome_mib_variables_oid);
        memcpy(vp.name + CALLHOME_MIB_ROOT_LEN, entry.name, entry.namelen * sizeof(oid));
        vp.namelen = static_cast<u_char>(CALLHOME_MIB_ROOT_LEN + entry.namelen);
        oid name[MAX_OID_LEN];
        memcpy(name, vp.name, vp.namelen * sizeof(oid));
        name[vp.namelen] = 0;
        size_t length = vp.namelen + 1u;
        Read r;
        r.value = get_callhome_mib(&vp, name, &length, 1, &r.len, &r.write_method);
        return r;
    }
    ADD_FAILURE() << "no object with magic " << int(magic);
    return {};
}

// One variable's SET as the agent runs it: read, RESERVE1, RESERVE2, ACTION, then COMMIT or
// UNDO. Returns the first error status.
int set(u_char magic, u_char type, const void *value, size_t len) {
    WriteMethod *handler = get(magic).write_method;
    if (handler == nullptr) {
        return SNMP_ERR_NOTWRITABLE;
    }
    std::vector<u_char> bytes(static_cast<const u_char *>(value),
                              static_cast<const u_char *>(value) + len);
    bytes.push_back(0);
    for (int action : {RESERVE1, RESERVE2, ACTION}) {
        const int status = handler(action, bytes.data(), type, len, nullptr, nullptr, 0);
        if (status != SNMP_ERR_NOERROR) {
            handler(action == ACTION ? UNDO : FREE, bytes.data(), type, len, nullptr, nullptr, 0);
            return status;
        }
    }
    return handler(COMMIT, bytes.data(), type, len, nullptr, nullptr, 0);
}

int set_text(u_char magic, const std::string &value) {
    return set(magic, ASN_OCTET_STR, value.data(), value.size());
}

int set_number(u_char magic, long value, u_char type = ASN_INTEGER) {
    return set(magic, type, &value, sizeof value);
}

struct PlatformReset {
    PlatformReset() { platform::reset_for_tests(); }
};

class ServiceScalars : public ::testing::Test {
  protected:
    void SetUp() override { memset(&callhome_email_conf, 0, sizeof callhome_email_conf); }
    void TearDown() override { platform::reset_for_tests(); }

    PlatformReset reset_;
    ServiceChannel service;
};

TEST_F(ServiceScalars, ContactTextsReadBackUnderTheirNames) {
    struct Case {
        u_char magic;
        std::string value;
    };
    const Case cases[] = {
        {SYSCONTACTPHONENUMBER, "+1 800-555-0100"},
        {SYSCONTACTEMAILADDRESS, "noc@example.com"},
        {SYSSTREETADDRESS, "1 Example Way, Springfield"},
        {CALLHOMECUSTOMERID, "customer 42"},
        {CALLHOMECONTRACTID, "contract-7"},
        {CALLHOMESITEID, "site-3"},
    };
    for (const auto &c : cases) {
        // Never set: the empty text.
        Read before = get(c.magic);
        ASSERT_NE(before.value, nullptr);
        EXPECT_EQ(before.len, 0u);
        EXPECT_EQ(set_text(c.magic, c.value), SNMP_ERR_NOERROR) << c.value;
        const Read after = get(c.magic);
        ASSERT_NE(after.value, nullptr);
        EXPECT_EQ(after.text(), c.value);
    }
}

TEST_F(ServiceScalars, PriorityRoundTrip) {
    EXPECT_EQ(get(CALLHOMEDEVICESERVICEPRIORITY).number(), 8); // never set
    for (long priority : {1L, 8L, 3L}) {
        EXPECT_EQ(set_number(CALLHOMEDEVICESERVICEPRIORITY, priority), SNMP_ERR_NOERROR);
        EXPECT_EQ(get(CALLHOMEDEVICESERVICEPRIORITY).number(), priority);
    }
}

TEST_F(ServiceScalars, RefusedValueReachesTheErrorRecord) {
    EXPECT_EQ(set_text(SYSCONTACTEMAILADDRESS, "not-an-address"), SNMP_ERR_GENERR);
    EXPECT_EQ(platform::last_snmp_error(),
              std::make_pair(int32_t{CALLHOME_ERR_INVALID_INPUT}, std::string("invalid input")));
    EXPECT_EQ(get(SYSCONTACTEMAILADDRESS).len, 0u); // nothing stored
}

TEST_F(ServiceScalars, SwitchesNeedTheContactFirst) {
    EXPECT_EQ(get(CALLHOMEENABLE).number(), 2);
    // The service refuses to switch on without someone to answer the messages.
    EXPECT_EQ(set_number(CALLHOMEENABLE, 1), SNMP_ERR_GENERR);
    EXPECT_EQ(platform::last_snmp_error().first, CALLHOME_ERR_INVALID_INPUT);
    EXPECT_EQ(get(CALLHOMEENABLE).number(), 2);

    ASSERT_EQ(set_text(SYSCONTACTEMAILADDRESS, "noc@example.com"), 0);
    ASSERT_EQ(set_text(SYSCONTACTPHONENUMBER, "+1 800-555-0100"), 0);
    ASSERT_EQ(set_text(SYSSTREETADDRESS, "1 Example Way"), 0);
    EXPECT_EQ(set_number(CALLHOMEENABLE, 1), SNMP_ERR_NOERROR);
    EXPECT_EQ(get(CALLHOMEENABLE).number(), 1);
    EXPECT_EQ(set_number(CALLHOMEENABLE, 2), SNMP_ERR_NOERROR);
    EXPECT_EQ(get(CALLHOMEENABLE).number(), 2);

    const long throttling = get(MSGTHROTTLINGENABLE).number();
    const long other = throttling == 1 ? 2 : 1;
    EXPECT_EQ(set_number(MSGTHROTTLINGENABLE, other), SNMP_ERR_NOERROR);
    EXPECT_EQ(get(MSGTHROTTLINGENABLE).number(), other);
}

TEST_F(ServiceScalars, AlertTestRecordsItsOutcomeInTheStatus) {
    ASSERT_EQ(set_text(SYSCONTACTEMAILADDRESS, "noc@example.com"), 0);
    ASSERT_EQ(set_text(SYSCONTACTPHONENUMBER, "+1 800-555-0100"), 0);
    ASSERT_EQ(set_text(SYSSTREETADDRESS, "1 Example Way"), 0);
    ASSERT_EQ(set_number(CALLHOMEENABLE, 1), 0);

    EXPECT_EQ(set_number(CALLHOMEALERTTEST, 2), SNMP_ERR_NOERROR);
    EXPECT_EQ(get(CALLHOMEALERTTEST).number(), 1); // a trigger reads as "no action"
    // No profile subscribes: nothing was sent, and the status says why.
    EXPECT_EQ(get(CALLHOMEALERTSSENTCOUNT).number(), 0);
    EXPECT_EQ(get(CALLHOMELASTALERTSENTTIME).number(), 0);
    const Read error = get(CALLHOMEERRORMESSAGE);
    ASSERT_NE(error.value, nullptr);
    const std::string code_text = syserr2str(0x403B0040);
    EXPECT_EQ(error.text().rfind(code_text + " -  ", 0), 0u) << error.text();
    EXPECT_GT(error.len, code_text.size());
}

TEST_F(ServiceScalars, EmailHeadersKeepEachOther) {
    ASSERT_EQ(set_text(CALLHOMEEMAILFROM, "from@example.com"), 0);
    ASSERT_EQ(set_text(CALLHOMEEMAILREPLYTO, "reply@example.com"), 0);
    ASSERT_EQ(set_text(CALLHOMEEMAILMSGDISPNOTIFICATION, "receipt@example.com"), 0);
    EXPECT_EQ(get(CALLHOMEEMAILFROM).text(), "from@example.com");
    EXPECT_EQ(get(CALLHOMEEMAILREPLYTO).text(), "reply@example.com");
    EXPECT_EQ(get(CALLHOMEEMAILMSGDISPNOTIFICATION).text(), "receipt@example.com");
}

// The agent's order for one request with type and address: read and RESERVE1 per variable,
// then RESERVE2 and ACTION for each in request order.
int set_type_and_address(bool type_first, long type, const std::string &address) {
    u_char type_bytes[sizeof(long)];
    memcpy(type_bytes, &type, sizeof type);
    std::vector<u_char> addr(address.begin(), address.end());
    addr.push_back(0);
    auto run_type = [&](int action) {
        return set_callHomeSmtpServerAddrType(action, type_bytes, ASN_INTEGER, sizeof type, nullptr,
                                              nullptr, 0);
    };
    auto run_addr = [&](int action) {
        return set_callHomeSmtpServerAddr(action, addr.data(), ASN_OCTET_STR, address.size(),
                                          nullptr, nullptr, 0);
    };
    struct Step {
        u_char magic;
        std::function<int(int)> run;
    };
    std::vector<Step> order = {{CALLHOMESMTPSERVERADDRTYPE, run_type},
                               {CALLHOMESMTPSERVERADDR, run_addr}};
    if (!type_first) {
        std::swap(order[0], order[1]);
    }
    for (auto &step : order) {
        get(step.magic);
        if (int status = step.run(RESERVE1)) {
            return status;
        }
    }
    for (int action : {RESERVE2, ACTION}) {
        for (auto &step : order) {
            if (int status = step.run(action)) {
                return status;
            }
        }
    }
    return 0;
}

TEST_F(ServiceScalars, SmtpTypeAndAddressInEitherOrder) {
    const std::string v6("\x20\x01\x0D\xB8\0\0\0\0\0\0\0\0\0\0\0\x01", 16);
    const std::string v4("\xC0\x00\x02\x0A", 4);
    ASSERT_EQ(set_number(CALLHOMESMTPSERVERPORT, 25, ASN_GAUGE), 0);
    for (bool type_first : {true, false}) {
        SCOPED_TRACE(type_first ? "type first" : "address first");
        ASSERT_EQ(set_type_and_address(type_first, 1, v4), 0);
        EXPECT_EQ(get(CALLHOMESMTPSERVERADDRTYPE).number(), 1);
        EXPECT_EQ(get(CALLHOMESMTPSERVERADDR).text(), v4);

        ASSERT_EQ(set_type_and_address(type_first, 2, v6), 0);
        EXPECT_EQ(get(CALLHOMESMTPSERVERADDRTYPE).number(), 2);
        EXPECT_EQ(get(CALLHOMESMTPSERVERADDR).text(), v6);

        EXPECT_EQ(set_type_and_address(type_first, 1, v6), SNMP_ERR_WRONGVALUE);
        ASSERT_EQ(set_type_and_address(type_first, 16, "mail.example.com"), 0);
        EXPECT_EQ(get(CALLHOMESMTPSERVERADDR).text(), "mail.example.com");
        EXPECT_EQ(get(CALLHOMESMTPSERVERPORT).number(), 25); // kept throughout
    }
}

TEST_F(ServiceScalars, SmtpPortRoundTrip) {
    ASSERT_EQ(set_number(CALLHOMESMTPSERVERPORT, 587, ASN_GAUGE), 0);
    EXPECT_EQ(get(CALLHOMESMTPSERVERPORT).number(), 587);
    EXPECT_EQ(set_number(CALLHOMESMTPSERVERPORT, 70000, ASN_GAUGE), SNMP_ERR_WRONGVALUE);
    EXPECT_EQ(get(CALLHOMESMTPSERVERPORT).number(), 587);
}

TEST_F(ServiceScalars, PeriodicInventoryReadModifyWrite) {
    // The service's defaults.
    EXPECT_EQ(get(PERIODICSWINVENTORYMSGENABLE).number(), 1);
    EXPECT_EQ(get(PERIODICSWINVENTORYTIMEFRAME).number(), 7);
    EXPECT_EQ(get(PERIODICSWINVENTORYTIMEOFDAY).text(), "08:00");

    ASSERT_EQ(set_number(PERIODICSWINVENTORYTIMEFRAME, 21, ASN_GAUGE), 0);
    ASSERT_EQ(set_text(PERIODICSWINVENTORYTIMEOFDAY, "06:30"), 0);
    ASSERT_EQ(set_number(PERIODICSWINVENTORYMSGENABLE, 2), 0);
    EXPECT_EQ(get(PERIODICSWINVENTORYMSGENABLE).number(), 2);
    EXPECT_EQ(get(PERIODICSWINVENTORYTIMEFRAME).number(), 21);
    EXPECT_EQ(get(PERIODICSWINVENTORYTIMEOFDAY).text(), "06:30");

    // Off stays off when another field changes.
    ASSERT_EQ(set_text(PERIODICSWINVENTORYTIMEOFDAY, "23:59"), 0);
    EXPECT_EQ(get(PERIODICSWINVENTORYMSGENABLE).number(), 2);
    EXPECT_EQ(get(PERIODICSWINVENTORYTIMEOFDAY).text(), "23:59");

    // A bad time is refused in ACTION and changes nothing.
    EXPECT_EQ(set_text(PERIODICSWINVENTORYTIMEOFDAY, "24:00"), SNMP_ERR_WRONGVALUE);
    EXPECT_EQ(get(PERIODICSWINVENTORYTIMEOFDAY).text(), "23:59");
    EXPECT_EQ(get(PERIODICSWINVENTORYTIMEFRAME).number(), 21);
}

TEST_F(ServiceScalars, ReadOnlyObjectsHaveNoWriteHandler) {
    for (u_char magic :
         {CALLHOMEMESSAGESTATUS, CALLHOMEERRORMESSAGE, CALLHOMEDESTPROFILEMAXCOUNT,
          CALLHOMEUSERDEFCLICMDMAXCOUNT, CALLHOMELASTALERTSENTTIME, CALLHOMEALERTSSENTCOUNT}) {
        EXPECT_EQ(set_number(magic, 1), SNMP_ERR_NOTWRITABLE) << int(magic);
    }
    EXPECT_EQ(get(CALLHOMEDESTPROFILEMAXCOUNT).number(), 50);
    EXPECT_EQ(get(CALLHOMEUSERDEFCLICMDMAXCOUNT).number(), 5);
}

} // namespace
