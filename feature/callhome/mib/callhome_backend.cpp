// The request channel to the call-home service: scalar reads, the status mapping and the
// wire records' defaults, orderings and byte-order conversions.
#include "callhome_mib.h"

#include <arpa/inet.h>

#include <cstddef>
#include <cstring>
#include <type_traits>

namespace {

// Records are packed, so their 32-bit fields may be unaligned: swap through memcpy.
template <class Record> void swap32_at(Record *record, size_t offset) {
    unsigned char *p = reinterpret_cast<unsigned char *>(record) + offset;
    uint32_t v;
    memcpy(&v, p, sizeof v);
    v = htonl(v); // htonl and ntohl are the same swap
    memcpy(p, &v, sizeof v);
}

#define CALLHOME_SWAP32(record, field)                                                             \
    swap32_at(record, offsetof(std::remove_pointer_t<decltype(record)>, field))

// Ordering of two signed keys as the containers expect it: b's greater gives 1.
int order_of(int32_t a, int32_t b) {
    if (a == b) {
        return 0;
    }
    return b > a ? 1 : -1;
}

} // namespace

extern "C" {

u_char *get_using_cmi(int, void *, uint32_t, size_t *, int) {
    return nullptr;
}
long get_periodic_inventory_info(callhome_periodic_inventory_t *, int, int) {
    return 0;
}
cmi_email_conf_t callhome_email_conf;

int to_snmp_error_code(int status) {
    if (status == CALLHOME_SUCCESS) {
        return SNMP_ERR_NOERROR;
    }
    if (status == CALLHOME_UNKNOWN_ENTRY) {
        return SNMP_ERR_NOSUCHNAME;
    }
    return SNMP_ERR_GENERR;
}

/* ---- Byte order: every 32-bit field of a record travels big-endian. ---------------- */

void callHomeDestProfileEntry_hton(callHomeDestProfileEntry_t *entry) {
    CALLHOME_SWAP32(entry, transport_method);
    CALLHOME_SWAP32(entry, format_method);
    CALLHOME_SWAP32(entry, maximum_message_size);
    CALLHOME_SWAP32(entry, row_status);
}
void callHomeDestProfileEntry_ntoh(callHomeDestProfileEntry_t *entry) {
    callHomeDestProfileEntry_hton(entry);
}

void callHomeDestEmailAddressEntry_hton(callHomeDestEmailAddressEntry_t *entry) {
    CALLHOME_SWAP32(entry, index);
    CALLHOME_SWAP32(entry, row_status);
}
void callHomeDestEmailAddressEntry_ntoh(callHomeDestEmailAddressEntry_t *entry) {
    callHomeDestEmailAddressEntry_hton(entry);
}

void callHomeAlertGroupEntry_hton(callHomeAlertGroupEntry_t *entry) {
    CALLHOME_SWAP32(entry, word);
    CALLHOME_SWAP32(entry, row_status);
}
void callHomeAlertGroupEntry_ntoh(callHomeAlertGroupEntry_t *entry) {
    callHomeAlertGroupEntry_hton(entry);
}

void callHomeEmailConf_hton(cmi_email_conf_t *conf) {
    CALLHOME_SWAP32(conf, address_type);
    CALLHOME_SWAP32(conf, smtp_server_port);
}
void callHomeEmailConf_ntoh(cmi_email_conf_t *conf) {
    callHomeEmailConf_hton(conf);
}

void callhome_alertgroup_type_hton(callhome_alertgroup_type_t *record) {
    CALLHOME_SWAP32(record, index);
}
void callhome_alertgroup_type_ntoh(callhome_alertgroup_type_t *record) {
    callhome_alertgroup_type_hton(record);
}

void cmi_userdef_cli_cmd_hton(cmi_userdef_cli_cmd_t *record) {
    CALLHOME_SWAP32(record, index);
    CALLHOME_SWAP32(record, row_status);
}
void cmi_userdef_cli_cmd_ntoh(cmi_userdef_cli_cmd_t *record) {
    cmi_userdef_cli_cmd_hton(record);
}

/* ---- Defaults of new rows ----------------------------------------------------------- */

void callHomeDestProfileEntry_defaults(callHomeDestProfileEntry_t *entry) {
    entry->transport_method = 1;
    entry->format_method = 1;
    entry->maximum_message_size = 0;
    entry->msg_level = 0;
    entry->request_flag = 0;
}

void callHomeDestEmailAddressEntry_defaults(callHomeDestEmailAddressEntry_t *entry) {
    entry->destination_profile_id[0] = '\0';
    entry->email_addr[0] = '\0';
    entry->commit_flag = 0;
}

/* ---- Container orderings. The containers rely on the reversed order (b against a). ---- */

int callHomeDestProfileEntry_comp(const void *a, const void *b) {
    if (a == nullptr || b == nullptr) {
        return -1;
    }
    const auto *ra = static_cast<const callHomeDestProfileEntry_t *>(a);
    const auto *rb = static_cast<const callHomeDestProfileEntry_t *>(b);
    return strncmp(rb->destination_profile_id, ra->destination_profile_id,
                   sizeof ra->destination_profile_id);
}

int callHomeDestEmailAddressEntry_comp(const void *a, const void *b) {
    if (a == nullptr || b == nullptr) {
        return -1;
    }
    const auto *ra = static_cast<const callHomeDestEmailAddressEntry_t *>(a);
    const auto *rb = static_cast<const callHomeDestEmailAddressEntry_t *>(b);
    const int by_name = strncmp(rb->destination_profile_id, ra->destination_profile_id,
                                sizeof ra->destination_profile_id);
    if (by_name != 0) {
        return by_name;
    }
    return order_of(ra->index, rb->index);
}

int callHomeUserDefCliCmdEntry_comp(const void *a, const void *b) {
    if (a == nullptr || b == nullptr) {
        return -1;
    }
    const auto *ra = static_cast<const callHomeUserDefCliCmdEntry_t *>(a);
    const auto *rb = static_cast<const callHomeUserDefCliCmdEntry_t *>(b);
    const int by_type = order_of(ra->alertgroup_type, rb->alertgroup_type);
    return by_type != 0 ? by_type : order_of(ra->index, rb->index);
}

} // extern "C"
