// Hostile text into the settings-file parser, the logger's configuration parser, the type and
// value readers and the option scanner, none of which has a specified abort. Each check returns
// an empty text when it holds, else what went wrong. Shared by the fuzz targets and the replay.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/support/fuzz_common.h"
#include "kernel/ltype.h"
#include "kernel/s128.h"
#include "support/run_process.h"
#include "tools/standalone_client/driver.h"
#include "tools/standalone_client/options.h"
#include "utils/context.h"
#include "utils/mem.h"
#include "utils/znconfig.h"
#include "utils/znlog_config.h"

namespace kest_fuzz {

// What the client reads of a store filled from `source` (a text, or the path of a file), through
// the getters it uses, and the parser's error count.
inline std::string parse_settings(const char* source, int is_file) {
  ConfigLayer* c = znconfig_create();
  if (c == nullptr) return "(no store)";
  const int errors = znconfig_parse_config(c, source, is_file);
  const auto lng = [c](int key) {
    return std::to_string(znconfig_get_lng(c, ZNCONFIG_GROUP_CLIENT, key)) + "|";
  };
  const auto str = [c](int key) {
    const char* s = znconfig_get_str(c, ZNCONFIG_GROUP_CLIENT, key);
    return (s ? std::string(s) : "(null)") + "|";
  };
  const std::string view = lng(ZNCONFIG_CLIENT_PORT) + str(ZNCONFIG_CLIENT_OUTPUT_MODE) +
                           str(ZNCONFIG_CLIENT_HOST) + lng(ZNCONFIG_CLIENT_CONNECTION_RETRIES) +
                           str(ZNCONFIG_CLIENT_PASSFILE) + std::to_string(errors) + " errors";
  znconfig_free(c);
  return view;
}

// The same settings read from a text and from a file (whose reader works in 4,000-byte blocks)
// must leave the client with the same values and the same error count.
inline std::string check_settings(const uint8_t* data, size_t size) {
  fuzz_init();
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  const std::string text(bytes.substr(0, bytes.find('\0')));
  static const std::filesystem::path file = std::filesystem::temp_directory_path() /
                                            ("kest_fuzz_" + std::to_string(std::random_device{}()));
  std::ofstream(file, std::ios::binary) << text;
  const std::string from_text = parse_settings(text.c_str(), 0);
  const std::string from_file = parse_settings(file.string().c_str(), 1);
  std::error_code ignored;
  std::filesystem::remove(file, ignored);
  if (from_text != from_file) return "text and file differ: " + from_text + " / " + from_file;
  return {};
}

inline std::string check_log_config(const uint8_t* data, size_t size) {
  const LogConfig c = parse_log_config({reinterpret_cast<const char*>(data), size});
  if (c.rule_count < 1 || c.rule_count > kMaxFacilityRules) return "rule count out of range";
  for (int i = 0; i < c.rule_count; ++i) {
    const FacilityRule& r = c.rules[i];
    if (r.name[kFacilityNameMax] != 0) return "facility name not terminated";
    if (r.level > 4 || r.colour > kColourDefault || r.outputs >= (1u << kLogOutputCount))
      return "rule " + std::to_string(i) + " out of range";
  }
  for (const OutputStyle& s : c.styles)
    if (s.stream != nullptr || s.time_mode > 2) return "output style out of range";
  if (c.error_line < 0) return "negative error line";
  (void)log_file_path(c, "logs");
  return {};
}

// __int128 reading of the same text as s128_from_string_ptr: optional '-', then digits.
inline bool s128_model(const char* text, __int128* value) {
  const bool negative = *text == '-';
  if (negative) ++text;
  unsigned __int128 v = 0;
  const unsigned __int128 limit = (static_cast<unsigned __int128>(1) << 127) - (negative ? 0 : 1);
  for (; *text >= '0' && *text <= '9'; ++text) {
    const unsigned digit = static_cast<unsigned>(*text - '0');
    if (v > (limit - digit) / 10) return false;
    v = v * 10 + digit;
  }
  *value = negative ? static_cast<__int128>(-v) : static_cast<__int128>(v);
  return true;
}

inline std::string check_s128(const char* text) {
  s128 got{};
  __int128 want = 0;
  const bool fits = s128_model(text, &want);
  const int overflow = s128_from_string_ptr(text, &got);
  if (overflow != (fits ? 0 : 1)) {
    // -2^127 itself may be refused: its magnitude is one past the positive range.
    if (!(fits && want == static_cast<__int128>(static_cast<unsigned __int128>(1) << 127)))
      return "overflow verdict " + std::to_string(overflow) + " for [" + text + "]";
    return {};
  }
  if (!fits) return {};
  const auto bits = static_cast<unsigned __int128>(want);
  if (got.lo != static_cast<uint64_t>(bits) || got.hi != static_cast<int64_t>(bits >> 64))
    return std::string("wrong value for [") + text + "]";
  char back[48];
  const int len = s128_to_string_ptr(back, sizeof back, &got);
  s128 again{};
  if (len <= 0 || len >= static_cast<int>(sizeof back) || s128_from_string_ptr(back, &again) != 0 ||
      again.lo != got.lo || again.hi != got.hi)
    return std::string("no round trip for [") + text + "]";
  return {};
}

// The type texts a server may name, with parameters filled from the input.
inline std::string type_text(uint8_t pick, uint8_t p1, uint8_t p2) {
  static const char* const kNames[] = {
      "bool",       "schr", "uchr",    "ssht",  "usht",    "sint",      "uint",
      "slng",       "ulng", "s128",    "uidx",  "decimal", "flt4",      "flt8",
      "money",      "char", "varchar", "date",  "time",    "timestamp", "intervalds",
      "intervalym", "int",  "integer", "float", "double",  "str"};
  std::string text = kNames[pick % std::size(kNames)];
  const int params = pick / 32 % 4;  // none, one, or two (2 and 3)
  if (params > 0) text += "(" + std::to_string(p1 % 48);
  if (params > 1) text += "," + std::to_string(p2 % 48);
  return params > 0 ? text + ")" : text;
}

// Types held in a binary float: past 2^53 their text is rounded, and reading it again (for
// "money", scaling by 100) may land on a neighbouring value.
inline bool approximate(uint32_t type) {
  const uint32_t id = ltype_id(type);
  return id == LTYPE_MONEY || id == LTYPE_FLT4 || id == LTYPE_FLT8;
}

// Reads the text as a value of a type, prints it back, and reads the printed text again: the
// second print must read back, and equal the first where the type is exact.
inline std::string check_value(uint32_t type, const char* text) {
  QueryContext* ctx = query_context_create(nullptr);
  if (ctx == nullptr) return "no query context";
  std::string why;
  const char* first = value_normalise(ctx, type, text);
  if (first != nullptr) {
    const std::string once = first;
    const char* second = value_normalise(ctx, type, once.c_str());
    if (second == nullptr)
      why = "printed value [" + once + "] of type " + std::to_string(type) + " does not read back";
    else if (once != second && !approximate(type))
      why = "value [" + once + "] printed again as [" + second + "], type " + std::to_string(type);
  }
  query_context_destroy(ctx);
  return why;
}

// Byte 0 picks the reader; for values bytes 1-3 pick the type; the rest is the text.
inline std::string check_types(const uint8_t* data, size_t size) {
  fuzz_init();
  if (size < 4) return {};
  const std::string rest(reinterpret_cast<const char*>(data) + 4, size - 4);
  const std::string text = rest.substr(0, rest.find('\0'));
  switch (data[0] % 3) {
    case 0: {
      const uint32_t type = ltype_parse(text.c_str());
      char name[64];
      const int len = ltype_to_string(name, type);
      if (len < 0 || len >= 64 || std::strlen(name) != static_cast<size_t>(len))
        return "type text of " + std::to_string(type) + " does not fit";
      (void)ltype_display_width(type);
      (void)ltype_digits(type);
      return {};
    }
    case 1:
      return check_s128(text.c_str());
    default:
      return check_value(ltype_parse(type_text(data[1], data[2], data[3]).c_str()), text.c_str());
  }
}

// The arguments are the NUL-separated pieces of the input, after the program name.
inline std::string check_options(const uint8_t* data, size_t size) {
  std::vector<std::string> pieces;
  for (std::string_view rest(reinterpret_cast<const char*>(data), size); !rest.empty();) {
    const size_t end = std::min(rest.find('\0'), rest.size());
    pieces.emplace_back(rest.substr(0, end));
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
  kest_test::Argv args("kest_client", std::move(pieces));
  const int argc = args.argc();
  OptionCursor cursor;
  // Every call consumes an argument or a letter of a cluster.
  const size_t bound = size + static_cast<size_t>(argc) + 2;
  for (size_t step = 0;; ++step) {
    if (step > bound) return "the scan does not end";
    const char* optarg = nullptr;
    const int letter = get_option(&cursor, argc, args.argv(), kest_client_options, &optarg);
    // The run stops at a refusal (and "-?" asks for the usage text, which ends it too).
    if (letter == GET_OPTION_END || letter == GET_OPTION_REFUSED) break;
    const LongOption* o = kest_client_options;
    while (o->name && o->letter != letter) ++o;
    if (o->name == nullptr) return "unknown letter " + std::to_string(letter);
    if ((optarg != nullptr) != (o->has_arg != 0))
      return std::string("value presence wrong for -") + static_cast<char>(letter);
    if (letter == 'o' && static_cast<int>(client_output_mode_code(optarg)) > 3)
      return "output mode out of range";
  }
  return {};
}

}  // namespace kest_fuzz
