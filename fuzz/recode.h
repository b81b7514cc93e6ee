/* Records through the client library's decoders and back through the service's encoders. */
#ifndef FUZZ_RECODE_H
#define FUZZ_RECODE_H

#include <cstdint>
#include <string>

enum class record_kind { media_source, media_node, node_metadata };
constexpr int RECORD_KINDS = 3;

/* Decodes `count` records, reads every byte of what comes out and packs it again. False when the
 * decoder refuses, which it must do without leaving anything behind. */
bool recode(record_kind kind, const std::string& bytes, int32_t count, std::string* packed);

/* As the service writes them: the records must decode, take up exactly these bytes, and come out
 * of the encoder with as many. */
void require_records(record_kind kind, const std::string& bytes, int32_t count);

#endif
