// The MIB definition against the agent: smilint accepts it, and net-snmp's parser gives every
// object of the agent's object table its name, OID, syntax and access, and back.
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <sys/wait.h>

#include "callhome_mib.h"
#include "run_command.hpp"

namespace {

const std::string kRoot = "1.3.6.1.4.1.32473.9.300";
const std::string kModule = "CALLHOME-MIB";

using Result = callhome_test::CommandResult;
using callhome_test::run_command;

// snmptranslate with only this module and the IETF base modules it imports. Its standard
// error is kept apart so that parser complaints can be checked on their own.
Result translate(const std::string &args, std::string *errors = nullptr) {
    const std::string err_file = ::testing::TempDir() + "snmptranslate.err";
    Result r =
        run_command("MIBDIRS='" + std::string(BASE_MIB_DIR) + ":" + MIB_DIR + "' MIBS=" + kModule +
                    " " + SNMPTRANSLATE_PATH + " " + args + " 2>" + err_file);
    if (errors != nullptr) {
        *errors = run_command("cat " + err_file).out;
    }
    while (!r.out.empty() && r.out.back() == '\n') {
        r.out.pop_back();
    }
    return r;
}

std::string oid_of(const struct variable7 &v) {
    std::string s = kRoot;
    for (int i = 0; i < v.namelen; ++i) {
        s += "." + std::to_string(v.name[i]);
    }
    return s;
}

// One clause ("SYNTAX", "MAX-ACCESS", "INDEX", "OBJECTS") of snmptranslate -Td output.
std::string clause(const std::string &td, const std::string &keyword) {
    const std::string key = "\n  " + keyword + "\t";
    const auto at = td.find(key);
    if (at == std::string::npos) {
        return "";
    }
    const auto from = td.find_first_not_of('\t', at + key.size());
    const auto to = td.find('\n', from);
    std::string value = td.substr(from, to == std::string::npos ? std::string::npos : to - from);
    while (!value.empty() && value.back() == ' ') {
        value.pop_back();
    }
    return value;
}

bool starts_with(const std::string &s, const std::string &prefix) {
    return s.compare(0, prefix.size(), prefix) == 0;
}

// Whether a MIB syntax (as snmptranslate resolves it to its base type) is encoded with the
// ASN.1 type that the agent answers with.
bool syntax_matches(const std::string &syntax, u_char asn_type) {
    switch (asn_type) {
    case ASN_INTEGER:
        return starts_with(syntax, "INTEGER") || starts_with(syntax, "Integer32");
    case ASN_OCTET_STR:
        return starts_with(syntax, "OCTET STRING");
    case ASN_GAUGE: // also ASN_UNSIGNED
        return starts_with(syntax, "Gauge32") || starts_with(syntax, "Unsigned32");
    case ASN_TIMETICKS:
        return starts_with(syntax, "TimeTicks");
    case ASN_COUNTER:
        return starts_with(syntax, "Counter32");
    default:
        return false;
    }
}

TEST(MibDefinition, SmilintReportsNoErrors) {
    // Levels 0 to 3 are errors; warnings (4 and above) are printed for the reader only.
    const Result r = run_command("SMIPATH='" + std::string(BASE_MIB_DIR) + ":" + MIB_DIR + "' " +
                                 SMILINT_PATH + " -l 9 -s " + MIB_DIR + "/CALLHOME-MIB.txt 2>&1");
    std::cout << r.out;
    for (const char *severe : {": [0] ", ": [1] ", ": [2] ", ": [3] "}) {
        EXPECT_EQ(r.out.find(severe), std::string::npos) << r.out;
    }
    // smilint also says so when it can't find an imported module.
    EXPECT_EQ(r.out.find("failed to locate"), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("unknown"), std::string::npos) << r.out;
}

TEST(MibDefinition, NetSnmpParsesTheModuleWithoutComplaint) {
    std::string errors;
    const Result r = translate("-On " + kModule + "::callHomeMIB", &errors);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "." + kRoot);
    EXPECT_EQ(errors, "");
}

// Each entry of the object table the agent registers: the MIB names an object (not an
// instance below one) at that OID, and the name translates back to the OID; its syntax is
// encoded as the agent encodes it, and its access is the agent's.
TEST(MibDefinition, EveryServedObjectHasItsNameOidSyntaxAndAccess) {
    for (const auto &v : callhome_mib_variables) {
        const std::string oid = oid_of(v), td = translate("-Td ." + oid).out;
        const std::string name = td.substr(0, td.find('\n'));
        SCOPED_TRACE(oid + " " + name);
        ASSERT_TRUE(starts_with(name, kModule + "::") && name.find('.') == std::string::npos);
        EXPECT_EQ(translate("-On " + name).out, "." + oid);
        EXPECT_TRUE(syntax_matches(clause(td, "SYNTAX"), v.type)) << clause(td, "SYNTAX");
        const std::string access = clause(td, "MAX-ACCESS");
        if (v.acl == NETSNMP_OLDAPI_RWRITE) {
            const bool column = v.findVar != get_callhome_mib; // table columns have their own
            EXPECT_EQ(access, column ? "read-create" : "read-write");
        } else {
            EXPECT_EQ(access, "read-only");
        }
    }
}

// Nothing in the MIB claims an object that the agent does not serve: every accessible
// object under the module is in the object table.
TEST(MibDefinition, EveryAccessibleObjectIsServed) {
    std::set<std::string> served;
    for (const auto &v : callhome_mib_variables) {
        served.insert(oid_of(v));
    }
    const Result all = translate("-Tz");
    std::istringstream in(all.out);
    std::string line;
    int checked = 0;
    const std::string prefix = kRoot + ".1.";
    while (std::getline(in, line)) {
        // "label"<tabs>"oid"
        std::istringstream fields(line);
        std::string label, oid;
        fields >> label >> oid;
        if (label.size() < 3 || oid.size() < 3 || label.front() != '"' || oid.front() != '"') {
            continue;
        }
        label = label.substr(1, label.size() - 2);
        oid = oid.substr(1, oid.size() - 2);
        if (oid.compare(0, prefix.size(), prefix) != 0) {
            continue;
        }
        const std::string td = translate("-Td " + kModule + "::" + label).out;
        const std::string access = clause(td, "MAX-ACCESS");
        if (access.empty() || access == "not-accessible") {
            continue;
        }
        ++checked;
        EXPECT_TRUE(served.count(oid)) << label << " (" << oid << ") is not served";
    }
    EXPECT_EQ(checked, CALLHOME_MIB_VARIABLE_COUNT);
}

TEST(MibDefinition, TablesAreIndexedAsTheAgentEncodesRows) {
    const std::map<std::string, std::string> indexes = {
        {"callHomeDestProfileEntry", "{ callHomeDestProfileName }"},
        {"callHomeDestEmailAddressEntry",
         "{ callHomeDestProfileName, callHomeDestEmailAddressIndex }"},
        {"callHomeAlertGroupTypeEntry", "{ callHomeAlertGroupTypeIndex }"},
        {"callHomeUserDefCliCmdEntry",
         "{ callHomeAlertGroupTypeIndex, callHomeUserDefCliCmdIndex }"},
    };
    for (const auto &[entry, index] : indexes) {
        EXPECT_EQ(clause(translate("-Td " + kModule + "::" + entry).out, "INDEX"), index) << entry;
    }
    // The agent serves no index column: all of them are not-accessible.
    for (const char *index : {"callHomeDestProfileName", "callHomeDestEmailAddressIndex",
                              "callHomeAlertGroupTypeIndex", "callHomeUserDefCliCmdIndex"}) {
        EXPECT_EQ(clause(translate("-Td " + kModule + "::" + index).out, "MAX-ACCESS"),
                  "not-accessible")
            << index;
    }
    // Instance OIDs as the agent builds them: a profile name is its length and its
    // characters; integer indexes are single arcs.
    const std::string config = "." + kRoot + ".1.1";
    EXPECT_EQ(translate("-On '" + kModule + "::callHomeDestProfileMsgFormat.\"p1\"'").out,
              config + ".12.1.2.2.112.49");
    EXPECT_EQ(translate("-On '" + kModule + "::callHomeDestEmailAddress.\"p1\".3'").out,
              config + ".14.1.2.2.112.49.3");
    EXPECT_EQ(translate("-On " + kModule + "::callHomeAlertGroupTypeName.7").out,
              config + ".25.1.2.7");
    EXPECT_EQ(translate("-On " + kModule + "::callHomeUserDefCliCmdStatus.4.2").out,
              config + ".30.6.1.3.4.2");
    EXPECT_EQ(translate("-OS " + config + ".14.1.3.2.112.49.3").out,
              kModule + "::callHomeDestEmailAddressStatus.\"p1\".3");
}

TEST(MibDefinition, NotificationsCarryTheAlertGroupTypeName) {
    for (const auto &[name, arc] : std::map<std::string, int>{
             {"callHomeAlertGroupTypeAdded", 2}, {"callHomeAlertGroupTypeDeleted", 3}}) {
        const std::string oid = "." + kRoot + ".0." + std::to_string(arc);
        EXPECT_EQ(translate("-On " + kModule + "::" + name).out, oid);
        EXPECT_EQ(translate("-OS " + oid).out, kModule + "::" + name);
        EXPECT_EQ(clause(translate("-Td " + kModule + "::" + name).out, "OBJECTS"),
                  "{ callHomeAlertGroupTypeName }")
            << name;
    }
}

TEST(MibDefinition, RangesOfWritableObjects) {
    const std::map<std::string, std::string> ranges = {
        {"callHomeDestProfileMsgLevel", "Integer32 (1..10)"},
        {"callHomeDestProfileMaxMsgSize", "Gauge32 (0..1000000)"},
        {"callHomeDestProfileMsgFormat", "INTEGER {fullText(1), xml(2), shortText(3)}"},
        {"callHomeDestProfileTrnsprtMthd", "INTEGER {email(1)}"},
        {"callHomeDeviceServicePriority", "Integer32 (1..8)"},
        {"periodicSwInventoryTimeFrame", "Gauge32 (1..30)"},
        {"callHomeSmtpServerPort", "Gauge32 (0..65535)"},
        {"callHomeAlertGroups", "OCTET STRING (0..8)"},
        {"callHomeUserDefCliCmd", "OCTET STRING (0..599)"},
        {"callHomeAlertTest", "INTEGER {noAction(1), test(2), inventory(3)}"},
    };
    for (const auto &[name, syntax] : ranges) {
        EXPECT_EQ(clause(translate("-Td " + kModule + "::" + name).out, "SYNTAX"), syntax) << name;
    }
}

} // namespace
