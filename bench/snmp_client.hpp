// A thin synchronous SNMPv2c client on net-snmp's single-session API: the bench times
// requests in-process instead of starting net-snmp's tools for each.
#pragma once

#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include <string>
#include <vector>

namespace bench {

using Oid = std::vector<oid>;

Oid parse_oid(const std::string &dotted);
// Appends a text index: its length, then one arc per byte.
Oid with_text_index(Oid base, const std::string &text);

struct WalkResult {
    size_t varbinds = 0;
    size_t requests = 0;
    double micros = 0;
};

class SnmpClient {
  public:
    SnmpClient(int port, const std::string &community);
    ~SnmpClient();
    SnmpClient(const SnmpClient &) = delete;
    SnmpClient &operator=(const SnmpClient &) = delete;

    // Walks the subtree under `root` with GETNEXT (max_repetitions 0) or GETBULK. Throws
    // when the agent fails to answer or answers with an error.
    WalkResult walk(const Oid &root, int max_repetitions);
    // One request; true when the agent answered without an error status.
    bool get(const Oid &name);
    bool getnext(const Oid &name);
    bool getbulk(const Oid &name, int max_repetitions);
    bool set_text(const Oid &name, const std::string &value);
    bool set_int(const Oid &name, long value);

  private:
    bool request(netsnmp_pdu *pdu);
    void *session_ = nullptr;
};

// Once per process, before any client: no MIB files, no persistent state in $HOME.
void init_snmp_library(const std::string &persistent_dir);

} // namespace bench
