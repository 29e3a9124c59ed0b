// The skeletons the channel's handlers share.
//
// serve_table, for the table opcodes: every table request carries a whole row record whose
// index fields name the row; GET answers that row, GETNEXT the first row after it, SET checks
// and writes the row, DELETE removes it.
//
// A table is a small struct of its own:
//   Record                            the wire record of a row
//   Key                               what names a row
//   std::optional<Key> key(rec, type) the request's row; nullopt answers unknownEntry
//   std::optional<Record> find(key)   the row's record, if it exists
//   std::optional<Record> next(key)   the first row after `key` in the MIB's order
//   int32_t set(key, rec)             checks, then storage first and state after; the status
//   int32_t erase(key)                the same for a delete
//
// serve_scalar, for the scalars read and written whole: a GET may carry the record (as the
// module sends it) or nothing at all; a SET carries the new record.
//   Record                            the wire record
//   Record get()                      the current value
//   int32_t set(rec)                  checks, then storage first and state after; the status
#pragma once

#include <type_traits>

#include "callhome_wire.h"
#include "codec.hpp"

namespace callhome {

template <class Table>
platform::CmiReply serve_table(Table &&table, int type, const codec::Bytes &b) {
    typename std::decay_t<Table>::Record rec;
    if (!codec::load(b, rec)) {
        return codec::answer(CALLHOME_ERR_INVALID_INPUT);
    }
    const auto key = table.key(rec, type);
    if (!key) {
        return codec::answer(CALLHOME_UNKNOWN_ENTRY);
    }
    switch (type) {
    case GET_REQ: {
        const auto row = table.find(*key);
        return row ? codec::answer_record(*row) : codec::answer(CALLHOME_UNKNOWN_ENTRY);
    }
    case GETNEXT_REQ: {
        const auto row = table.next(*key);
        return row ? codec::answer_record(*row) : codec::answer(CALLHOME_END_OF_TABLE);
    }
    case SET_REQ:
        return codec::answer(table.set(*key, rec));
    default: // DELETE
        return codec::answer(table.erase(*key));
    }
}

template <class Scalar>
platform::CmiReply serve_scalar(Scalar &&scalar, int type, const codec::Bytes &b) {
    using Record = typename std::decay_t<Scalar>::Record;
    if (type == GET_REQ) {
        if (!b.empty() && b.size() != sizeof(Record)) {
            return codec::answer(CALLHOME_ERR_INVALID_INPUT);
        }
        return codec::answer_record(scalar.get());
    }
    Record rec;
    if (type != SET_REQ || !codec::load(b, rec)) {
        return codec::answer(CALLHOME_ERR_INVALID_INPUT);
    }
    return codec::answer(scalar.set(rec));
}

} // namespace callhome
