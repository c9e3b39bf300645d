// record_json.h - records as JSON and back, for the command-line tools.
//
// A record is a JSON array with one object per element, in element order:
//
//     [{"name": "baud", "type": "uint", "value": 9600},
//      {"name": "port", "type": "record", "value": [ ...elements... ]},
//      {"name": "t", "type": "text", "flags": ["empty"], "value": null}]
//
// Every byte sequence maps to JSON and back to the same bytes: values whose
// bytes are not the canonical encoding of their type are written as "hex",
// bytes that are no well-formed element as {"raw": "<hex>"}. JSON that is
// accepted prints back as the same JSON; anything else (unknown keys, values
// out of range, a non-canonical spelling) is refused with a message that
// names the element. docs/record_json.md describes the form.
#pragma once

#include <cstddef>
#include <string>

#include <nlohmann/json.hpp>

#include <orvo_record.h>

namespace orvo_tools {

using tJson = nlohmann::ordered_json;

// The JSON form of a record (an array; [] for an empty record).
tJson RecordToJson(const orvo::cRecord& record);
tJson RecordBytesToJson(const unsigned char* bytes, size_t size);

// The record a JSON form describes. False, with a message in error and record
// left empty, when json is not the canonical JSON form of a record.
bool JsonToRecord(const tJson& json, orvo::cRecord& record, std::string& error);

// Parses JSON text; false with the parser's message (it names the position).
bool ParseJson(const std::string& text, tJson& json, std::string& error);

}  // namespace orvo_tools
