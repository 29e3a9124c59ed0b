#include "snmp_client.hpp"

#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "bench_support.hpp"

namespace bench {

Oid parse_oid(const std::string &dotted) {
    Oid out;
    const char *p = dotted.c_str();
    while (*p != '\0') {
        if (*p == '.') {
            ++p;
            continue;
        }
        char *end = nullptr;
        out.push_back(oid(std::strtoul(p, &end, 10)));
        p = end;
    }
    return out;
}

Oid with_text_index(Oid base, const std::string &text) {
    base.push_back(oid(text.size()));
    for (unsigned char c : text) {
        base.push_back(c);
    }
    return base;
}

void init_snmp_library(const std::string &persistent_dir) {
    // net-snmp would announce creating these.
    mkdir(persistent_dir.c_str(), 0700);
    mkdir((persistent_dir + "/cert_indexes").c_str(), 0700);
    setenv("MIBS", "", 1);
    setenv("SNMP_PERSISTENT_DIR", persistent_dir.c_str(), 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_READ_CONFIGS, 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DISABLE_PERSISTENT_LOAD, 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DISABLE_PERSISTENT_SAVE, 1);
    init_snmp("callhome_bench");
}

SnmpClient::SnmpClient(int port, const std::string &community) {
    netsnmp_session s;
    snmp_sess_init(&s);
    const std::string peer = "udp:127.0.0.1:" + std::to_string(port);
    s.peername = const_cast<char *>(peer.c_str());
    s.version = SNMP_VERSION_2c;
    s.community = reinterpret_cast<u_char *>(const_cast<char *>(community.c_str()));
    s.community_len = community.size();
    s.timeout = 5'000'000; // the module may wait up to 10 s for a write; the bench never does
    s.retries = 0;
    session_ = snmp_sess_open(&s);
    if (session_ == nullptr) {
        throw std::runtime_error("cannot open an SNMP session to " + peer);
    }
}

SnmpClient::~SnmpClient() {
    if (session_ != nullptr) {
        snmp_sess_close(session_);
    }
}

bool SnmpClient::request(netsnmp_pdu *pdu) {
    netsnmp_pdu *resp = nullptr;
    const int st = snmp_sess_synch_response(session_, pdu, &resp);
    bool ok = st == STAT_SUCCESS && resp != nullptr && resp->errstat == SNMP_ERR_NOERROR;
    // An exception in place of a value (no such object...) is no answer either.
    for (auto *v = ok ? resp->variables : nullptr; v != nullptr; v = v->next_variable) {
        ok = ok && v->type != SNMP_NOSUCHOBJECT && v->type != SNMP_NOSUCHINSTANCE &&
             v->type != SNMP_ENDOFMIBVIEW;
    }
    if (resp != nullptr) {
        snmp_free_pdu(resp);
    }
    return ok;
}

bool SnmpClient::get(const Oid &name) {
    netsnmp_pdu *pdu = snmp_pdu_create(SNMP_MSG_GET);
    snmp_add_null_var(pdu, name.data(), name.size());
    return request(pdu);
}

bool SnmpClient::getnext(const Oid &name) {
    netsnmp_pdu *pdu = snmp_pdu_create(SNMP_MSG_GETNEXT);
    snmp_add_null_var(pdu, name.data(), name.size());
    return request(pdu);
}

bool SnmpClient::getbulk(const Oid &name, int max_repetitions) {
    netsnmp_pdu *pdu = snmp_pdu_create(SNMP_MSG_GETBULK);
    pdu->non_repeaters = 0;
    pdu->max_repetitions = max_repetitions;
    snmp_add_null_var(pdu, name.data(), name.size());
    return request(pdu);
}

bool SnmpClient::set_text(const Oid &name, const std::string &value) {
    netsnmp_pdu *pdu = snmp_pdu_create(SNMP_MSG_SET);
    snmp_pdu_add_variable(pdu, name.data(), name.size(), ASN_OCTET_STR, value.data(), value.size());
    return request(pdu);
}

bool SnmpClient::set_int(const Oid &name, long value) {
    netsnmp_pdu *pdu = snmp_pdu_create(SNMP_MSG_SET);
    snmp_pdu_add_variable(pdu, name.data(), name.size(), ASN_INTEGER, &value, sizeof value);
    return request(pdu);
}

WalkResult SnmpClient::walk(const Oid &root, int max_repetitions) {
    WalkResult r;
    Oid cur = root;
    const auto start = Clock::now();
    for (;;) {
        netsnmp_pdu *pdu =
            snmp_pdu_create(max_repetitions > 0 ? SNMP_MSG_GETBULK : SNMP_MSG_GETNEXT);
        if (max_repetitions > 0) {
            pdu->non_repeaters = 0;
            pdu->max_repetitions = max_repetitions;
        }
        snmp_add_null_var(pdu, cur.data(), cur.size());
        netsnmp_pdu *resp = nullptr;
        const int st = snmp_sess_synch_response(session_, pdu, &resp);
        ++r.requests;
        if (st != STAT_SUCCESS || resp == nullptr || resp->errstat != SNMP_ERR_NOERROR) {
            if (resp != nullptr) {
                snmp_free_pdu(resp);
            }
            throw std::runtime_error("walk: the agent did not answer or answered an error");
        }
        bool done = resp->variables == nullptr;
        for (netsnmp_variable_list *v = resp->variables; v != nullptr && !done;
             v = v->next_variable) {
            const bool inside =
                v->name_length > root.size() &&
                snmp_oidtree_compare(root.data(), root.size(), v->name, v->name_length) == 0;
            if (!inside || v->type == SNMP_ENDOFMIBVIEW || v->type == SNMP_NOSUCHOBJECT ||
                v->type == SNMP_NOSUCHINSTANCE) {
                done = true;
                break;
            }
            ++r.varbinds;
            cur.assign(v->name, v->name + v->name_length);
        }
        snmp_free_pdu(resp);
        if (done) {
            break;
        }
    }
    r.micros = micros_since(start);
    if (r.varbinds == 0) {
        throw std::runtime_error("walk: nothing under the subtree (is the module loaded?)");
    }
    return r;
}

} // namespace bench
