// One scripted session through every handler of the module, against the service hosted
// in-process (with failures injected on the channel where a step needs one). The whole trace
// output, level and text of every record, and what the handlers write to standard error must
// equal golden/trace.txt: every trace text and complaint the module emits is pinned here and
// nowhere else. Between them the file records each request that reached the channel ("> request":
// opcode/type, user/session, client, queue, wait, whether an answer record is wanted, the record's
// size and its non-zero bytes by offset, then the answer), after each read the value and OID
// handed to the agent and whether a write handler came with it, after each SET its status, failed
// phase, error record, logged failure, heartbeats and any rows left in the containers ("= ...").
// The unit tests keep only what needs a scripted answer or no service. (Not reached: the allocation
// failures of the table writes, which no test can inject, and a notification without payload, which
// the platform never hands over.)
//
// After an intended change of the traces, regenerate the file and review its diff:
//   CALLHOME_UPDATE_GOLDEN=1 build/bin/mib_tests --gtest_filter='GoldenTrace.*'
#include <gtest/gtest.h>

#include <cerrno>
#include <fstream>
#include <sstream>

// The module's headers first: the platform's test hooks name their container type.
#include "golden.hpp"
#include "mib_support.hpp"
#include "service_channel.hpp"

namespace callhome_test {
namespace {

const std::string kGolden = CALLHOME_GOLDEN_DIR "/trace.txt";

// One trace record per line: its level, then the text with \ and control characters escaped.
std::string line_of(int level, const std::string &text) {
    std::string s = std::to_string(level) + ' ';
    for (char c : text) {
        s += c == '\n' ? "\\n" : c == '\t' ? "\\t" : c == '\\' ? "\\\\" : std::string(1, c);
    }
    return s + '\n';
}

// A value as a read hands it to the agent: a number with its length, or escaped text.
std::string shown(const u_char *v, size_t len, u_char type) {
    if (v == nullptr) {
        return "none";
    }
    std::ostringstream s;
    if (type != ASN_OCTET_STR && (len == 4 || len == sizeof(long))) {
        int32_t i = 0;
        long l = 0;
        len == 4 ? std::memcpy(&i, v, 4) : std::memcpy(&l, v, len);
        s << (len == 4 ? long{i} : l) << " (" << len << " bytes)";
        return s.str();
    }
    s << '"' << std::hex;
    for (size_t i = 0; i < len; ++i) {
        if (v[i] < 0x20 || v[i] > 0x7E || v[i] == '"' || v[i] == '\\') {
            s << "\\x" << (v[i] >> 4) << (v[i] & 0xF);
        } else {
            s << char(v[i]);
        }
    }
    return s.str() + '"';
}

// A record as it reaches the service: its size, then each run of non-zero bytes at its offset.
std::string packed(const Bytes &b) {
    std::string s = std::to_string(b.size()) + 'B';
    for (size_t i = 0, j = 0; i < b.size(); i = j) {
        for (j = i; j < b.size() && b[j] != 0; ++j) {
        }
        if (j == i) {
            ++j;
        } else {
            s += " @" + std::to_string(i) + shown(&b[i], j - i, ASN_OCTET_STR);
        }
    }
    return s;
}

class GoldenTrace : public ::testing::Test {
  protected:
    void SetUp() override {
        platform::set_snmp_context("admin", 9);
        callhome_email_conf = {}; // what earlier tests in this process left is sent in requests
        platform::set_trap_sink([](const oid *, size_t, netsnmp_variable_list *) {});
        platform::set_transport([this](const platform::CmiRequest &r) { return serve(r); });
    }

    // The next request of this opcode and message type after `skip` others answers `status`
    // (-1: fails with errno `err`) instead of reaching the service.
    void fail(int opcode, int msg_type, int status, int skip = 0, int err = EIO) {
        faults_.push_back({opcode, msg_type, skip, {status, false, {}, err}});
    }
    // The same, answering `record` with status 0.
    template <class Record>
    void answer(int opcode, int msg_type, const Record &record, int skip = 0) {
        const auto *p = reinterpret_cast<const uint8_t *>(&record);
        faults_.push_back({opcode, msg_type, skip, {0, true, Bytes(p, p + sizeof record), 0}});
    }
    platform::CmiReply serve(const platform::CmiRequest &r) {
        auto used = faults_.end();
        for (auto it = faults_.begin(); it != faults_.end(); ++it) {
            if (it->opcode == r.opcode && it->msg_type == r.msg_type && it->skip-- == 0 &&
                used == faults_.end()) {
                used = it;
            }
        }
        collect();
        platform::CmiReply reply;
        if (used == faults_.end()) {
            reply = svc.service().handle(r);
        } else {
            reply = used->reply;
            faults_.erase(used);
        }
        out_ << "> request " << r.opcode << '/' << r.msg_type << ' '
             << (r.user_null ? std::string("-") : r.user) << '/' << r.session << " client "
             << r.client << " queue " << r.queue << " wait " << r.wait
             << (r.wants_record ? " wants " : " ") << packed(r.record) << " answered "
             << reply.status << (reply.has_record ? " with a record\n" : "\n");
        return reply;
    }

    // Starts a titled step of the session: what the previous step traced is collected first.
    void step(const std::string &title) {
        collect();
        for (const Fault &f : faults_) {
            ADD_FAILURE() << "unused fault " << f.opcode << "/" << f.msg_type << " before "
                          << title;
        }
        faults_.clear();
        out_ << "# " << title << '\n';
    }
    void collect() {
        for (const auto &[level, text] : platform::trace_history()) {
            out_ << line_of(level, text);
        }
        platform::clear_trace_history();
    }

    // A read as the agent makes it: exact GET, or GETNEXT from `name` within the object.
    // A read from an OID outside the object's column: a GETNEXT there starts at the first row.
    void read(u_char magic, const Oid &tail, int exact, const Oid &from = {}) {
        const Read r = from.empty() ? fetch(magic, tail, exact) : fetch_at(magic, from, exact);
        collect();
        out_ << "= " << shown(r.value, r.var_len, column(magic).type) << " at";
        // Below the module's root, so that the file also pins the OID of every object.
        const Oid base(callhome_mib_variables_oid,
                       callhome_mib_variables_oid + CALLHOME_MIB_ROOT_LEN),
            now = r.oid_now();
        const bool below =
            now.size() >= base.size() && std::equal(base.begin(), base.end(), now.begin());
        for (size_t i = below ? base.size() : 0; i < now.size(); ++i) {
            out_ << '.' << now[i];
        }
        out_ << (r.write != nullptr ? " writable\n" : "\n");
    }
    void get(u_char magic, const Oid &tail = {0}) { read(magic, tail, 1); }
    void next(u_char magic, const Oid &tail = {}) { read(magic, tail, 0); }
    struct ReadStep {
        u_char magic;
        Oid tail;
        int exact;
    };
    void reads(const std::vector<ReadStep> &steps) {
        for (const ReadStep &r : steps) {
            read(r.magic, r.tail, r.exact);
        }
    }

    // A SET request; what the handlers wrote to standard error follows its traces.
    void set(std::vector<Varbind> vbs) {
        platform::clear_errors();
        platform::clear_heartbeat_state();
        ::testing::internal::CaptureStderr();
        const SetResult r = run_set(std::move(vbs));
        std::istringstream err(::testing::internal::GetCapturedStderr());
        collect();
        for (std::string line; std::getline(err, line);) {
            out_ << "stderr " << line << '\n';
        }
        out_ << "= status " << r.status << " phase " << r.phase;
        if (const auto e = platform::last_snmp_error(); e.first != 0) {
            out_ << ", error record " << e.first << ' ' << e.second;
        }
        if (const auto l = platform::last_set_error(); l.first != 0 || l.second != 0) {
            out_ << ", logged " << l.first << '/' << l.second;
        }
        // Each write to the service is bracketed by a busy and an idle heartbeat.
        const platform::HeartbeatState beats = platform::heartbeat_state();
        out_ << ", heartbeats " << beats.changes << (beats.busy ? " busy" : "")
             << (containers_empty() ? "\n" : ", rows left in the containers\n");
    }
    // A SET whose request of `opcode` and `msg_type` after `skip` others answers `status`;
    // opcode kAdd: the container refuses its next add instead.
    static constexpr int kAdd = 0;
    void failing(int opcode, int msg_type, int status, std::vector<Varbind> vbs, int skip = 0) {
        opcode == kAdd ? platform::fail_next_indxobj_add() : fail(opcode, msg_type, status, skip);
        set(std::move(vbs));
    }
    void sets(const std::vector<std::vector<Varbind>> &requests) {
        for (const auto &vbs : requests) {
            set(vbs);
        }
    }

    PlatformReset reset_;
    ServiceChannel svc;
    std::ostringstream out_;

  private:
    struct Fault {
        int opcode, msg_type, skip;
        platform::CmiReply reply;
    };
    std::vector<Fault> faults_;
};

constexpr u_char PS = CALLHOMEDESTPROFILESTATUS, PF = CALLHOMEDESTPROFILEMSGFORMAT,
                 PM = CALLHOMEDESTPROFILEMAXMSGSIZE, PL = CALLHOMEDESTPROFILEMSGLEVEL,
                 PT = CALLHOMEDESTPROFILETRNSPRTMTHD, EA = CALLHOMEDESTEMAILADDRESS,
                 ES = CALLHOMEDESTEMAILADDRESSSTATUS, AG = CALLHOMEALERTGROUPS,
                 TN = CALLHOMEALERTGROUPTYPENAME, CC = CALLHOMEUSERDEFCLICMD,
                 CS = CALLHOMEUSERDEFCLICMDSTATUS, U = ASN_UNSIGNED, I = ASN_INTEGER;
constexpr int PO = CALLHOME_DEST_PROFILE_OPC, EO = CALLHOME_DEST_EMAIL_OPC,
              CO = CALLHOME_USER_DEF_CMD_OPC, GO = CALLHOME_PROFILE_ALERTGROUP_OPC,
              TO = CALLHOME_ALERTGROUP_TYPE_OPC, INVENTORY = CALLHOME_PERIODIC_INVENTORY_OPC,
              INVALID = CALLHOME_ERR_INVALID_INPUT, RESEND = CALLHOME_ERR_VELD_RESEND;
const std::string kIp4("\xC0\x00\x02\x07", 4);

Oid text_index(const std::string &s, const Oid &tail = {}) {
    return text(s) + tail;
}
Varbind num(u_char magic, long v, u_char type = I, const Oid &tail = {0}) {
    return int_vb(arcs_of(magic) + tail, v, type);
}
Varbind str(u_char magic, const std::string &s, const Oid &tail = {0}) {
    return str_vb(arcs_of(magic) + tail, s);
}
// A value of five bytes, which no handler takes.
Varbind five(u_char magic, const Oid &tail, uint8_t b, u_char type = I) {
    return {arcs_of(magic) + tail, type, Bytes(5, b)};
}
const auto prof = [](u_char m, const std::string &name, long v) {
    return num(m, v, m == PM ? U : I, text_index(name));
};
const auto mail = [](const std::string &n, oid i, long v) {
    return num(ES, v, I, text_index(n, {i}));
};
const auto addr = [](const std::string &n, oid i, const std::string &a) {
    return str(EA, a, text_index(n, {i}));
};
const auto cmd = [](oid type, oid i, long v) { return num(CS, v, I, {type, i}); };
const auto cli = [](oid type, oid i, const std::string &c) { return str(CC, c, {type, i}); };
const auto groups = [](const std::string &name, Bytes v) {
    return Varbind{arcs_of(AG) + text_index(name), ASN_OCTET_STR, std::move(v)};
};

// clang-format off
TEST_F(GoldenTrace, SessionThroughEveryHandler) {
    const u_char text_scalars[] = {SYSCONTACTPHONENUMBER, SYSCONTACTEMAILADDRESS, SYSSTREETADDRESS,
        CALLHOMECUSTOMERID, CALLHOMECONTRACTID, CALLHOMESITEID, CALLHOMEEMAILFROM,
        CALLHOMEEMAILREPLYTO, CALLHOMEEMAILMSGDISPNOTIFICATION};
    const u_char int_scalars[] = {CALLHOMEENABLE, CALLHOMEDEVICESERVICEPRIORITY, CALLHOMEALERTTEST,
        CALLHOMESMTPSERVERADDRTYPE, CALLHOMESMTPSERVERPORT, PERIODICSWINVENTORYMSGENABLE,
        PERIODICSWINVENTORYTIMEFRAME, MSGTHROTTLINGENABLE};
    auto is_gauge = [](u_char m) {
        return m == CALLHOMESMTPSERVERPORT || m == PERIODICSWINVENTORYTIMEFRAME; };

    // Two alert-group types keep the registry's refreshes short.
    for (const char *type : {"Environmental", "Inventory", "Syslog", "System", "Test"}) {
        ASSERT_EQ(svc.admin({"group", "del", type}).first, 0) << type;
    }
    step("start: the module loads the alert-group types");
    init_callhome_mib();

    step("scalar reads");
    for (const auto &v : callhome_mib_variables) {
        if (v.findVar == get_callhome_mib) {
            get(v.magic);
        }
    }
    step("scalar reads while the distribution service is enabled, then refused once");
    platform::set_distribution(true, 0);
    get(SYSCONTACTPHONENUMBER);
    get(PERIODICSWINVENTORYTIMEOFDAY);
    fail(CALLHOME_INFO_OPC, VELD_GET_REQ, CALLHOME_ERR_VELD_RESEND);
    get(CALLHOMESITEID);
    fail(CALLHOME_PERIODIC_INVENTORY_OPC, VELD_GET_REQ, CALLHOME_ERR_VELD_RESEND);
    get(PERIODICSWINVENTORYTIMEFRAME);
    get(CALLHOMEMESSAGESTATUS);          // never distributed
    platform::set_distribution(true, 1); // show-run mode: plain reads
    get(SYSCONTACTPHONENUMBER);
    get(CALLHOMEENABLE);
    platform::set_distribution(false, 0);
    step("scalar reads the service fails");
    for (int opcode :
         {CALLHOME_INFO_OPC, CALLHOME_EMAIL_CONF_OPC, CALLHOME_STATUS_OPC, CALLHOME_ENABLE_OPC,
          CALLHOME_MSG_THROTTLING_OPC, CALLHOME_PERIODIC_INVENTORY_OPC}) {
        fail(opcode, GET_REQ, CALLHOME_ERR_INVALID_INPUT);
        fail(opcode, GET_REQ, -1, 1);
    }
    for (u_char m : {SYSCONTACTPHONENUMBER, CALLHOMEEMAILFROM, CALLHOMEMESSAGESTATUS,
                     CALLHOMEENABLE, MSGTHROTTLINGENABLE, PERIODICSWINVENTORYTIMEOFDAY}) {
        get(m);
        get(m);
    }
    cmi_email_conf_t bad_server{};
    bad_server.address_type = be32(CALLHOME_ADDR_IPV4);
    std::strcpy(bad_server.smtp_server, "not-an-address");
    answer(CALLHOME_EMAIL_CONF_OPC, GET_REQ, bad_server);
    get(CALLHOMESMTPSERVERADDR);
    step("scalar reads of instances that do not exist");
    get(CALLHOMEENABLE, {1});
    get(CALLHOMEENABLE, {});
    get(CALLHOMEENABLE, {0, 1});
    next(CALLHOMEENABLE);

    step("scalar writes");
    for (u_char m : text_scalars) {
        set({str(m, m == SYSCONTACTPHONENUMBER ? "+1-555-0100" : "golden@example.com")});
    }
    sets({{num(CALLHOMEENABLE, 1)}, {num(CALLHOMEDEVICESERVICEPRIORITY, 3)}});
    fail(CALLHOME_ALERT_ACTION_OPC, SET_REQ, 0); // accepted without sending a message
    sets({{num(CALLHOMEALERTTEST, 2)}, {num(MSGTHROTTLINGENABLE, 2)},
          {num(CALLHOMESMTPSERVERADDRTYPE, 1), str(CALLHOMESMTPSERVERADDR, kIp4)},
          {num(CALLHOMESMTPSERVERPORT, 2525, U)}, {num(PERIODICSWINVENTORYMSGENABLE, 1)},
          {num(PERIODICSWINVENTORYTIMEFRAME, 7, U)}, {str(PERIODICSWINVENTORYTIMEOFDAY, "09:30")}});
    // The longest texts, spaces inside, a text ending at its NUL, an integer in 4 bytes, the
    // other ends of the ranges.
    for (u_char m : text_scalars) {
        set({str(m, m == SYSCONTACTPHONENUMBER ? "+" + std::string(16, '1')
                                               : std::string(255, 'x'))});
    }
    sets({{str(SYSCONTACTPHONENUMBER, "+1 800-555")}, {str(CALLHOMESITEID, "in\tside")},
          {str(CALLHOMESITEID, std::string("ab\0cd", 5))},
          {{arcs_of(CALLHOMEENABLE) + Oid{0}, I, {2, 0, 0, 0}}},
          {num(MSGTHROTTLINGENABLE, 1)}, {num(CALLHOMEDEVICESERVICEPRIORITY, 8)},
          {num(CALLHOMEDEVICESERVICEPRIORITY, 1)}, {num(CALLHOMESMTPSERVERADDRTYPE, 16)},
          {num(CALLHOMESMTPSERVERADDRTYPE, 1)}, {str(PERIODICSWINVENTORYTIMEOFDAY, "23:59")},
          {str(PERIODICSWINVENTORYTIMEOFDAY, "00:00")},
          {str(PERIODICSWINVENTORYTIMEOFDAY, "09:5")}});
    // The alert action: "no action" is never sent; a wait that runs out is no failure.
    set({num(CALLHOMEALERTTEST, 1)});
    for (const auto &[status, err] : std::vector<std::pair<int, int>>{
             {0, 0}, {-1, ETIME}, {-1, ECONNREFUSED}, {CALLHOME_UNKNOWN_ENTRY, 0},
             {0x403B0040, 0}}) {
        fail(CALLHOME_ALERT_ACTION_OPC, SET_REQ, status, 0, err);
        set({num(CALLHOMEALERTTEST, 3)});
    }
    step("scalar writes of the wrong type, length or value");
    for (u_char m : text_scalars) {
        sets({{num(m, 1)}, {str(m, std::string(300, 'x'))}});
    }
    for (u_char m : int_scalars) {
        const u_char type = is_gauge(m) ? U : I;
        sets({{str(m, "1")}, {five(m, {0}, 1, type)}, {num(m, 99999, type)}});
    }
    sets({{num(CALLHOMESMTPSERVERADDR, 1)}, {str(CALLHOMESMTPSERVERADDR, std::string(300, '1'))},
          {str(CALLHOMESMTPSERVERADDR, "not an address")},
          {num(CALLHOMESMTPSERVERADDRTYPE, 2), str(CALLHOMESMTPSERVERADDR, kIp4)},
          {num(PERIODICSWINVENTORYTIMEOFDAY, 1)}, {str(PERIODICSWINVENTORYTIMEOFDAY, "24:00")},
          {str(PERIODICSWINVENTORYTIMEOFDAY, "9")}});
    for (u_char m : text_scalars) { // empty, and one longer than allowed
        const bool phone = m == SYSCONTACTPHONENUMBER;
        sets({{str(m, "")}, {str(m, phone ? "+" + std::string(17, '1') : std::string(256, 'x'))}});
    }
    for (u_char m : int_scalars) { // the other integer type
        set({num(m, 1, is_gauge(m) ? I : U)});
    }
    sets({{str(CALLHOMESMTPSERVERADDR, "")}, {str(CALLHOMESMTPSERVERADDR, std::string(256, 'h'))},
          {str(PERIODICSWINVENTORYTIMEOFDAY, "")}, {str(PERIODICSWINVENTORYTIMEOFDAY, "12:345")}});
    for (const char *at : {"12:60", "-1:30", "9:30", "0930", "12:", "12:ab", "ab:12"}) {
        set({str(PERIODICSWINVENTORYTIMEOFDAY, at)});
    }
    for (u_char m : text_scalars) { // no space at either end
        sets({{str(m, " lead")}, {str(m, "trail ")}, {str(m, " ")}});
    }
    // The phone number: '+', then digits, spaces and dashes.
    for (const char *phone :
         {"+", "+1 800-555 ", "+ ", "1800", " +1800", "+1800x", "+1(800)", "++1"}) {
        set({str(SYSCONTACTPHONENUMBER, phone)});
    }
    // The address must fit the type; the last two leave the record as the step found it.
    for (const auto &[type, address] : std::vector<std::pair<long, std::string>>{
             {2, std::string("\x20\x01\x0D\xB8\0\0\0\0\0\0\0\0\0\0\0\x01", 16)},
             {16, "mail.example.com"}, {16, std::string(255, 'h')}, {1, std::string(16, '\x01')},
             {1, kIp4}, {2, kIp4}}) {
        set({num(CALLHOMESMTPSERVERADDRTYPE, type), str(CALLHOMESMTPSERVERADDR, address)});
    }
    // A refused type is not kept for the address that follows.
    sets({{num(CALLHOMESMTPSERVERADDRTYPE, 4)}, {str(CALLHOMESMTPSERVERADDR, kIp4)}});
    step("scalar writes while the distribution service is enabled");
    platform::set_distribution(true, 0);
    set({num(PERIODICSWINVENTORYMSGENABLE, 1)});
    failing(INVENTORY, VELD_GET_REQ, RESEND, {num(PERIODICSWINVENTORYTIMEFRAME, 7, U)}, 1);
    platform::set_distribution(true, 1); // the reads of a write are distributed in any mode
    set({num(PERIODICSWINVENTORYMSGENABLE, 1)});
    platform::set_distribution(false, 0);
    step("scalar writes the service refuses");
    failing(CALLHOME_INFO_OPC, SET_REQ, INVALID, {str(CALLHOMESITEID, "site")});
    failing(CALLHOME_INFO_OPC, SET_REQ, CALLHOME_UNKNOWN_ENTRY, {str(CALLHOMESITEID, "site")});
    failing(CALLHOME_INFO_OPC, SET_REQ, CALLHOME_ERR_NO_MEMORY, {str(CALLHOMESITEID, "site")});
    failing(CALLHOME_EMAIL_CONF_OPC, SET_REQ, -1, {str(CALLHOMEEMAILFROM, "a@b")});
    failing(CALLHOME_ENABLE_OPC, SET_REQ, INVALID, {num(CALLHOMEENABLE, 2)});
    failing(INVENTORY, SET_REQ, INVALID, {num(PERIODICSWINVENTORYMSGENABLE, 2)});
    failing(CALLHOME_EMAIL_CONF_OPC, GET_REQ, INVALID, {num(CALLHOMESMTPSERVERPORT, 25, U)});

    step("profile rows: create, change, destroy");
    sets({{prof(PS, "ops", 4), prof(PF, "ops", 2), prof(PM, "ops", 0), prof(PL, "ops", 5),
           prof(PT, "ops", 1)},
          {prof(PS, "p2", 4), prof(PF, "p2", 3)}, {prof(PF, "ops", 1)}, {prof(PM, "ops", 1000000)},
          {prof(PM, "ops", 9000)}, {prof(PT, "p6", 1), prof(PL, "p6", 10), prof(PS, "p6", 4)},
          {prof(PS, "xmlx", 4), prof(PS, "XML", 4), prof(PS, "a b", 4)},
          {prof(PS, "xmlx", 6), prof(PS, "XML", 6), prof(PS, "a b", 6), prof(PS, "p6", 6)},
          {prof(PS, "absent", 6)},
          {prof(PL, "ops", 3)}, {prof(PS, "ops", 1)}, {prof(PS, "p2", 6)}});
    step("profile refusals");
    for (const std::string &name : {std::string("xml"), std::string(" p"), std::string("p "),
                                     std::string(""), std::string("full_txt")}) {
        sets({{prof(PS, name, 4)}, {prof(PS, name, 6)}});
    }
    fail(PO, GET_REQ, CALLHOME_UNKNOWN_ENTRY); // a built-in row unseen
    sets({{prof(PS, "short_txt", 4)}, {prof(PS, "ops", 4)}, {prof(PS, "new", 2)},
          {prof(PS, "new", 1)}, {str(PS, "4", text_index("new"))}, {five(PS, text_index("new"), 4)},
          {prof(PM, "ops", 1000001)}, {num(PM, 1, I, text_index("ops"))},
          {five(PM, text_index("ops"), 1, U)}, {prof(PS, "new", 0)}, {prof(PS, "new", 3)},
          {prof(PS, "new", 5)}, {prof(PS, "new", 7)}, {prof(PS, "ops", 2)}});
    for (u_char m : {PF, PL, PT}) {
        sets({{prof(m, "ops", 0)}, {str(m, "1", text_index("ops"))},
              {five(m, text_index("ops"), 1)}, {prof(m, "ghost", 1)}, {prof(m, "xml", 1)}});
    }
    sets({{prof(PT, "ops", 1)}, {num(PF, 1, I, {5, 'o'})}, {num(PM, 1, U, {5, 'o'})},
          {num(PL, 1, I, {5, 'o'})}, {prof(PS, "new", 4), prof(PL, "new", 11)},
          {prof(PF, "ops", 4)}, {prof(PL, "ops", 11)}, {prof(PT, "ops", 2)}});
    step("profile writes the service or the containers fail");
    failing(PO, SET_REQ, CALLHOME_ERR_NO_MEMORY, {prof(PS, "p3", 4)});
    failing(PO, GET_REQ, INVALID, {prof(PS, "ops", 6)}, 1);
    failing(PO, DELETE_REQ, CALLHOME_ERR_BUILTIN_PROFILE, {prof(PS, "ops", 6)});
    failing(PO, SET_REQ, -1, {prof(PL, "ops", 2)});
    failing(PO, GET_REQ, INVALID, {prof(PL, "ops", 2)});
    failing(kAdd, 0, 0, {prof(PS, "p4", 4)});
    failing(kAdd, 0, 0, {prof(PS, "ops", 6)});
    step("profile rows put back by UNDO");
    set({prof(PS, "ops", 6), prof(PS, "p5", 4), prof(PF, "ghost", 2)});
    failing(PO, SET_REQ, INVALID, {prof(PS, "ops", 6), prof(PF, "ghost", 2)});
    set({prof(PS, "ops", 4)}); // the failed UNDO lost it

    step("address rows: create, destroy, refusals");
    sets({{mail("ops", 1, 4), addr("ops", 1, "a@ops.example")},
          {mail("ops", 2, 4), addr("ops", 2, "b@ops.example")}, {mail("ops", 2, 6)},
          {mail("ops", 3, 4)}, {mail("ops", 1, 4)}, {mail("ops", 3, 5)}, {mail("ops", 3, 1)},
          {mail("ops", 0, 4)}, {mail(" ops", 3, 4)}, {mail("", 3, 4)},
          {str(ES, "4", text_index("ops", {3}))}, {five(ES, text_index("ops", {3}), 4)},
          {mail("ops", 3, 4), addr("ops", 3, "")}, {mail("ops", 3, 4), addr("ops", 3, "a@b ")},
          {mail("ops", 3, 4), addr("ops", 3, std::string(256, 'x'))},
          {num(EA, 1, I, text_index("ops", {3}))}, {addr("ops", 1, "new@ops.example")},
          {addr("ops", 3, "new@ops.example")},
          {mail("ops", 9, 4), addr("ops", 9, std::string(255, 'x'))},
          {mail("ops", 9, 6)}, {mail("ops", 8, 6)}});
    step("address writes the service or the containers fail, and UNDO");
    failing(EO, SET_REQ, INVALID, {mail("ops", 4, 4), addr("ops", 4, "c@ops.example")});
    failing(EO, DELETE_REQ, -1, {mail("ops", 1, 6)});
    failing(EO, GET_REQ, CALLHOME_ERR_NO_MEMORY, {mail("ops", 1, 6)}, 1);
    failing(kAdd, 0, 0, {mail("ops", 5, 4)});
    failing(kAdd, 0, 0, {mail("ops", 1, 6)});
    set({mail("ops", 1, 6), mail("ops", 6, 4), addr("ops", 6, "d@ops.example"),
         prof(PF, "ghost", 2)});
    failing(EO, SET_REQ, INVALID, {mail("ops", 1, 6), prof(PF, "ghost", 2)});
    set({mail("ops", 1, 4), addr("ops", 1, "a@ops.example")}); // the failed UNDO lost it

    step("user command rows: create, destroy, refusals");
    sets({{cmd(1, 1, 4), cli(1, 1, "show clock")}, {cmd(1, 2, 4), cli(1, 2, "show version")},
          {cmd(1, 2, 6)}, {cmd(1, 3, 4)}, {cmd(1, 1, 4)}, {cmd(1, 3, 2)}, {cmd(1, 3, 1)},
          {cmd(1, 6, 4), cli(1, 6, "x")}, {cmd(1, 6, 6)}, {cmd(99, 1, 4), cli(99, 1, "x")},
          {str(CS, "4", {1, 3})}, {five(CS, {1, 3}, 4)},
          {cmd(1, 3, 4), cli(1, 3, std::string(600, 'c'))}, {num(CC, 1, I, {1, 3})},
          {cli(1, 1, "show run")}, {cli(1, 3, "show run")}, {num(CC, 1, ASN_OCTET_STR, {1})},
          {str(CC, "x", {1, 3, 3})}, {cmd(1, 1, 2)},
          {cmd(1, 9, 4), cli(1, 9, std::string(599, 'c'))},
          {cmd(1, 9, 6)}, {cmd(1, 8, 6)}});
    step("user command writes the service or the containers fail, and UNDO");
    failing(CO, SET_REQ, INVALID, {cmd(1, 4, 4), cli(1, 4, "show log")});
    failing(CO, DELETE_REQ, -1, {cmd(1, 1, 6)});
    failing(CO, GET_REQ, CALLHOME_ERR_NO_MEMORY, {cmd(1, 1, 6)}, 1);
    failing(kAdd, 0, 0, {cmd(1, 5, 4)});
    failing(kAdd, 0, 0, {cmd(1, 1, 6)});
    set({cmd(1, 1, 6), cmd(2, 1, 4), cli(2, 1, "show log"), prof(PF, "ghost", 2)});
    failing(CO, SET_REQ, INVALID, {cmd(1, 1, 6), prof(PF, "ghost", 2)});
    set({cmd(1, 1, 4), cli(1, 1, "show clock")}); // the failed UNDO lost it
    for (int skip : {0, 1}) { // the row the OID names goes, whatever the service answers
        answer(CO, GET_REQ, cmd_rec("Configuration", 3, "other"), skip);
    }
    sets({{cmd(1, 1, 6)}, {cmd(1, 1, 4), cli(1, 1, "show clock")}});

    step("profile alert groups");
    sets({{groups("ops", {0x40})}, {groups("ops", {0x30})}, {groups("ops", {0xFF})},
          {groups("ops", {0x60})}, {groups("ops", {0x40})}, {groups("ops", {})},
          {groups("ops", {0xFF})}, {groups("ops", {0, 0})},
          {groups("ops", {0x40, 0, 0, 0, 0, 0, 0, 0})},
          {groups("ops", {})},
          {groups("ops", Bytes(9, 0))}, {num(AG, 1, I, text_index("ops"))},
          {groups("ghost", {0x40})}});
    failing(GO, SET_REQ, INVALID, {groups("ops", {0x40})});
    set({groups("ops", {0x40})});
    failing(GO, DELETE_REQ, -1, {groups("ops", {})});

    step("profile alert groups while the distribution service is enabled, then refused once");
    platform::set_distribution(true, 0);
    set({groups("ops", {0x20})});
    fail(PO, VELD_GET_REQ, RESEND, 1);
    failing(GO, VELD_GETNEXT_REQ, RESEND, {groups("ops", {0x40})}, 2);
    // A read for a SET that walks on from the profile (no handler asks for one today).
    fail(PO, VELD_GETNEXT_REQ, RESEND);
    Oid column = arcs_of(AG), from = arcs_of(AG);
    size_t from_len = from.size();
    from.resize(MAX_OID_LEN);
    mibAlertGroup_t summary{};
    const int rc = header_callhome_alertgroups(column.data(), column.size(), from.data(), &from_len,
                                               0, &summary, 1);
    collect();
    out_ << "= " << rc << ' ' << summary.destination_profile_id << ' ' << summary.bitset_size
         << shown(summary.bitset, 8, ASN_OCTET_STR) << '\n';
    platform::set_distribution(false, 0);
    step("the type list the service fails to give");
    fail(TO, GETNEXT_REQ, -1);
    get(AG, text_index("ops"));
    fail(TO, GETNEXT_REQ, INVALID);
    get(AG, text_index("ops"));
    fail(TO, GETNEXT_REQ, -1); // no type known: no group is sent
    fail(TO, GETNEXT_REQ, -1, 1);
    set({groups("ops", {0xFF})});

    step("table reads: exact rows, walks, misses");
    for (const auto &v : callhome_mib_variables) {
        if (v.findVar != get_callhome_mib) {
            next(v.magic);
        }
    }
    reads({{PF, text_index("ops"), 1}, {PF, text_index("ghost"), 1}, {PF, text_index("ops"), 0},
           {PF, text_index("zzz"), 0}, {AG, text_index("ops"), 1}, {AG, text_index("ops"), 0},
           {EA, text_index("ops", {1}), 1}, {EA, text_index("ops", {9}), 1},
           {EA, text_index("ops", {1}), 0}, {EA, text_index("zzz", {1}), 0},
           {TN, {1}, 1}, {TN, {99}, 1}, {TN, {99}, 0}, {CC, {1, 1}, 1}, {CC, {1, 9}, 1},
           {CC, {1, 1}, 0}, {CC, {99, 1}, 0}, {CC, {0, 5}, 0}, {PF, {300}, 1}, {EA, {5, 'o'}, 1},
           {AG, {0}, 1}});
    // Index decoding: names are cut to 31 characters and take the low 8 bits of each arc; a
    // GETNEXT fills what is left out with 0xFF (for e-mail keys dropping the last character).
    const std::string ab = "ab", x40(40, 'x');
    reads({{PF, {}, 1}, {PF, {0}, 1}, {PF, {3, 97, 98}, 1}, {PF, {1, 97, 98}, 1}, {PF, {1, 353}, 1},
           {PF, text_index(x40), 1}, {PF, {}, 0}, {PF, text_index(ab), 0}, {PF, {5, 97, 98}, 0},
           {PF, {3}, 0}, {PF, text_index(x40), 0}, {PF, {40, 97}, 0}, {EA, {}, 1},
           {EA, text_index(ab), 1}, {EA, text_index(ab, {0}), 1}, {EA, {0, 1}, 1},
           {EA, text_index(ab, {1}), 1}, {EA, text_index(x40, {2}), 1}, {EA, {}, 0},
           {EA, text_index(ab, {1}), 0}, {EA, text_index(ab), 0}, {EA, {5, 97, 98}, 0},
           {EA, {3}, 0}, {EA, {0}, 0}, {EA, text_index(ab, {1, 9}), 0}, {EA, {40, 97}, 0},
           {TN, {}, 1}, {TN, {0}, 1}, {TN, {3, 4}, 1}, {TN, {}, 0}, {TN, {7}, 0}, {TN, {7, 1}, 0},
           {AG, {}, 1}, {AG, {3, 97}, 1}, {CC, {2, 6}, 1}, {CC, {2}, 1}, {CC, {}, 1},
           {CC, {2, 3, 1}, 1}});
    for (u_char m : {PF, EA, TN}) {
        read(m, {}, 0, arcs_of(CC) + text_index(ab));
        read(m, {}, 0, {1, 3, 6, 1, 4, 1, 32473, 9, 300, 1, 1, 11});
    }
    step("table reads while the distribution service is enabled, then refused once");
    platform::set_distribution(true, 0);
    reads({{PF, {}, 0}, {EA, {}, 0}, {TN, {}, 0}, {CC, {}, 0}, {AG, {}, 0},
           {PF, text_index("ops"), 1}, {AG, text_index("ops"), 1}});
    fail(PO, VELD_GET_REQ, RESEND); // a read is not repeated
    get(PF, text_index("ops"));
    for (int opcode : {PO, EO, CO}) {
        fail(opcode, VELD_GETNEXT_REQ, RESEND);
    }
    reads({{PF, {}, 0}, {EA, {}, 0}, {TN, {}, 0}, {CC, {}, 0}});
    set({prof(PL, "ops", 4)});
    platform::set_distribution(true, 3); // show-run mode: plain reads, distributed ones for a SET
    reads({{PF, {}, 0}, {PF, text_index("ops"), 1}, {EA, text_index("ops", {1}), 1},
           {CC, {1, 1}, 1}});
    for (int opcode : {PO, EO, CO}) { // repeated plainly for a SET
        fail(opcode, VELD_GET_REQ, RESEND);
    }
    sets({{prof(PL, "ops", 4)}, {mail("ops", 1, 1)}, {cmd(1, 1, 1)}});
    platform::set_distribution(false, 0);
    step("table reads the service fails");
    for (int opcode : {PO, EO, CO, TO, GO}) {
        fail(opcode, GETNEXT_REQ, INVALID);
        if (opcode != GO) { // its rows are only walked
            fail(opcode, GET_REQ, -1);
        }
    }
    reads({{PF, {}, 0}, {EA, {}, 0}, {TN, {}, 0}, {CC, {}, 0}, {PF, text_index("ops"), 1},
           {EA, text_index("ops", {1}), 1}, {TN, {1}, 1}, {CC, {1, 1}, 1},
           {AG, text_index("ops"), 1}, {AG, text_index("ops"), 0}});

    step("alert-group types added and removed: notifications");
    EXPECT_EQ(svc.admin({"group", "add", "Power"}).first, 0);
    EXPECT_EQ(svc.admin({"group", "del", "Power"}).first, 0);
    oid notif[MAX_OID_LEN];
    size_t notif_len = 0;
    int send = 0;
    EXPECT_EQ(handle_alertgroup_added_notif(nullptr, notif, &notif_len, &send), nullptr);

    step("stop");
    deinit_callhome_mib();
    collect();

    // clang-format on
    expect_golden(kGolden, out_.str());
}

} // namespace
} // namespace callhome_test
