#include "kernel/ltype.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>

#include "kernel/ptype.h"
#include "kernel/s128.h"
#include "utils/context.h"
#include "utils/kest_error.h"
#include "utils/mem.h"

namespace {

class TypesEnv : public ::testing::Environment {
 public:
  void SetUp() override { types_init(); }
};
const auto* const kEnv = ::testing::AddGlobalTestEnvironment(new TypesEnv);

uint32_t word(uint32_t id, uint32_t p8 = 0, uint32_t p16 = 0) { return id | p8 << 8 | p16 << 16; }
const uint32_t kMoney = word(LTYPE_MONEY, 0, 2);

std::string type_text(uint32_t type) {
  char buffer[64];
  int n = ltype_to_string(buffer, type);
  EXPECT_EQ(n, static_cast<int>(std::strlen(buffer)));
  return buffer;
}

// The text of a value stored as T, read through the named physical type (by default the one
// the logical type uses).
template <typename T>
std::string print(uint32_t type, T value, const char* physical = nullptr) {
  char buffer[1024];
  const PhysicalType* p = physical ? ptype_lookup(physical) : ltype_physical(type);
  int n = value_to_string(buffer, sizeof buffer, p, type, &value);
  EXPECT_EQ(n, static_cast<int>(std::strlen(buffer)));
  return buffer;
}

TEST(LtypeParse, NamesAndParameters) {
  struct Case {
    const char* text;
    uint32_t expected;
  } cases[] = {
      {"decimal", word(LTYPE_DECIMAL, 10, 0)},
      {"decimal(12, 2)", word(LTYPE_DECIMAL, 12, 2)},
      {"int", LTYPE_SINT},
      {"integer(1)", LTYPE_SCHR},
      {"int(16)", LTYPE_S128},
      {"float", LTYPE_FLT8},
      {"float(4)", LTYPE_FLT4},
      {"timestamp(9)", word(LTYPE_TIMESTAMP, 0, 6)},  // clamped; time and interval are not
      {"time(9)", word(LTYPE_TIME, 0, 9)},  // "time" is not taken for a prefix of "timestamp"
      {"intervalds(9)", word(LTYPE_INTERVALDS, 0, 9)},
      {"varchar(0)", LTYPE_VCHAR},
      {"str", LTYPE_VCHAR},
      {"char", word(LTYPE_CHAR, 1)},
      {"char(70000)", word(LTYPE_CHAR, 70000)},
      {"money", kMoney},
      // Capitals stop the parameter scan, not the name match.
      {"Decimal(12,2)", word(LTYPE_DECIMAL, 10, 0)},
      {"VARCHAR(5)", LTYPE_VCHAR}};
  for (const auto& c : cases) EXPECT_EQ(ltype_parse(c.text), c.expected) << c.text;
}

TEST(LtypeParse, RefusedNamesAreLoggedAndZero) {
  struct Case {
    const char* text;
    const char* log;
  } cases[] = {{"integer(3)", "unknown type <integer(3)(3,0)>"},
               {"decimal (5,2)", "unknown type <decimal (5,2)(0,0)>"},
               {"timestampz", "unknown type <timestampz(0,0)>"}};
  for (const auto& c : cases) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(ltype_parse(c.text), 0u) << c.text;
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_THAT(log, testing::HasSubstr(c.log));
    EXPECT_THAT(log, testing::HasSubstr("LTYPE"));
  }
}

// Type texts as the header prints them parse back to the same word, with their parameters.
TEST(LtypeText, SpellingsAndParameters) {
  struct Case {
    const char* text;
    int p1, p2;
  } cases[] = {{"bool", 0, 0},           {"usht", 0, 0},
               {"s128", 0, 0},           {"money", 0, 0},
               {"decimal(12,3)", 12, 3}, {"char(1)", 1, 0},
               {"varchar(300)", 300, 0}, {"str", 0, 0},
               {"time(3)", 3, 0},        {"timestamp", 0, 0},
               {"intervalds(2)", 2, 0},  {"intervalym", 0, 0}};
  for (const auto& c : cases) {
    const uint32_t type = ltype_parse(c.text);
    EXPECT_EQ(type_text(type), c.text);
    int p1 = -1, p2 = -1;
    ltype_params(type, &p1, &p2);
    EXPECT_TRUE(p1 == c.p1 && p2 == c.p2) << c.text << ": " << p1 << "," << p2;
  }
  EXPECT_EQ(type_text(0), "UNKNOWNTYPE");
  EXPECT_EQ(type_text(23), "UNKNOWNTYPE");
  EXPECT_STREQ(ltype_name(word(LTYPE_DECIMAL, 5, 2)), "decimal");
  EXPECT_STREQ(ltype_name(0x117), "UNKNOWNTYPE");  // only the low byte counts
  for (uint32_t id = 0; id < 30; ++id)
    EXPECT_EQ(ltype_is_scaled(id), id == LTYPE_DECIMAL || (id >= 18 && id <= 22)) << id;
}

TEST(LtypeText, FormatReturnsConstantsForBareNamesAndCopiesOthers) {
  MemContext* ctx = mem_context_create(nullptr, "ltype test");
  EXPECT_EQ(ltype_format(ctx, LTYPE_SINT, 0), ltype_name(LTYPE_SINT));
  const char* str = ltype_format(ctx, LTYPE_VCHAR, 0);
  EXPECT_STREQ(str, "str");
  EXPECT_EQ(str, ltype_format(ctx, LTYPE_VCHAR, 0));
  EXPECT_STREQ(ltype_format(ctx, word(LTYPE_DECIMAL, 9, 3), 0), "decimal(9,3)");
  EXPECT_STREQ(ltype_format(ctx, word(LTYPE_INTERVALDS, 0, 4), 0), "intervalds(4)");
  mem_context_destroy(ctx);
}

TEST(LtypeTable, DisplayWidthsAndDigits) {
  struct Case {
    const char* type;
    int width, digits;
  } cases[] = {{"bool", 5, 1},
               {"schr", 4, 3},
               {"uchr", 3, 3},
               {"sint", 11, 10},
               {"slng", 20, 19},
               {"ulng", 19, 19},
               {"s128", 40, 39},
               {"uidx", 19, 19},
               {"flt", 14, 7},
               {"dbl", 23, 16},
               {"money", 17, 16},
               {"char(9)", 9, 0},
               {"str", 0, 0},
               {"date", 10, 0},
               {"time", 8, 0},
               {"time(3)", 12, 0},
               {"intervalym", 8, 0},
               {"timestamp(6)", 26, 0},
               {"intervalds(1)", 19, 0},
               {"decimal(10,0)", 11, 10},
               {"decimal(12,2)", 14, 12},
               {"decimal(5,5)", 8, 5}};
  for (const auto& c : cases) {
    EXPECT_EQ(ltype_display_width(ltype_parse(c.type)), c.width) << c.type;
    EXPECT_EQ(ltype_digits(ltype_parse(c.type)), c.digits) << c.type;
  }
  EXPECT_EQ(ltype_display_width(200), 0);
  EXPECT_EQ(ltype_digits(200), 0);
}

TEST(PhysicalRegistry, BuiltInTypes) {
  struct Case {
    const char* name;
    int width, is_integer, fixed, by_reference;
  } cases[] = {{"schr", 1, 1, 1, 0}, {"usht", 2, 1, 1, 0},  {"sint", 4, 1, 1, 0},
               {"ulng", 8, 1, 1, 0}, {"s128", 16, 1, 1, 0}, {"uidx", 8, 1, 1, 0},
               {"flt", 4, 0, 1, 0},  {"dbl", 8, 0, 1, 0},   {"str", 8, 0, 0, 1},
               {"ptr", 8, 0, 1, 0}};
  for (const auto& c : cases) {
    const PhysicalType* p = ptype_lookup(c.name);
    ASSERT_NE(p, nullptr) << c.name;
    EXPECT_EQ(ptype_get(p->index), p);
    EXPECT_EQ(ptype_index(c.name), static_cast<int>(p->index));
    EXPECT_EQ(ptype_width(p), c.width) << c.name;
    EXPECT_EQ(p->is_integer, c.is_integer) << c.name;
    EXPECT_EQ(p->fixed_size, c.fixed) << c.name;
    EXPECT_EQ(p->by_reference, c.by_reference) << c.name;
  }
  EXPECT_EQ(ptype_lookup("SINT"), nullptr);
  EXPECT_EQ(ptype_index("sin"), -1);
  EXPECT_EQ(ptype_get(ptype_count()), nullptr);
  EXPECT_EQ(ptype_lookup("sint")->min, -2147483648.0);
  EXPECT_EQ(ptype_lookup("ssht")->max, 32767.0);
  EXPECT_EQ(ptype_lookup("flt")->max, 3.4028234663852886e38);
  EXPECT_EQ(ptype_lookup("dbl")->min, -1.7976931348623157e308);
}

TEST(PhysicalRegistry, NewDescriptorAndWidthClasses) {
  PhysicalType d = ptype_new("thing");
  EXPECT_STREQ(d.name, "thing");
  EXPECT_EQ(d.width_class, -1);
  EXPECT_EQ(d.is_integer, -1);
  EXPECT_EQ(d.fixed_size, -1);
  EXPECT_EQ(d.by_reference, 0);
  const int widths[] = {0, 1, 1, 2, 4, 8, 16, 0};
  for (int cls = 0; cls < 8; ++cls) {
    d.width_class = cls;
    EXPECT_EQ(ptype_width(&d), widths[cls]) << cls;
  }
}

TEST(PhysicalRegistry, LogicalToPhysical) {
  struct Case {
    const char* type;
    const char* physical;
  } cases[] = {{"bool", "uchr"},          {"schr", "schr"},
               {"uidx", "uidx"},          {"flt", "flt"},
               {"money", "dbl"},          {"decimal(2,0)", "schr"},
               {"decimal(3,0)", "ssht"},  {"decimal(9,2)", "sint"},
               {"decimal(18,0)", "slng"}, {"decimal(19,0)", "s128"},
               {"date", "sint"},          {"time(4)", "sint"},
               {"time(5)", "slng"},       {"intervalds", "slng"},
               {"intervalym", "sint"},    {"char(1)", "sint"},
               {"char(2)", "str"},        {"str", "str"}};
  for (const auto& c : cases) {
    const PhysicalType* p = ltype_physical(ltype_parse(c.type));
    ASSERT_NE(p, nullptr) << c.type;
    EXPECT_STREQ(p->name, c.physical) << c.type;
  }
  EXPECT_EQ(ltype_physical(0), nullptr);
  EXPECT_EQ(ltype_physical(23), nullptr);
}

TEST(LtypeLimits, MinAndMax) {
  const double big = 1.7976931348623157e308;
  EXPECT_EQ(ltype_max(LTYPE_S128), big);
  EXPECT_EQ(ltype_min(word(LTYPE_DECIMAL, 5, 2)), -1e5);
  EXPECT_EQ(ltype_min(kMoney), -1e14);
  EXPECT_EQ(ltype_max(LTYPE_DATE), 3652424.0);
  EXPECT_EQ(ltype_max(word(LTYPE_TIME, 0, 12)), 86400e9);  // f capped at 9
  EXPECT_EQ(ltype_max(word(LTYPE_TIMESTAMP, 0, 6)), 3652425.0 * 86400e6);
  EXPECT_EQ(ltype_max(LTYPE_BOOL), 255.0);
  EXPECT_EQ(ltype_max(0), big);
}

TEST(LtypeCommon, Pairs) {
  struct Case {
    const char* a;
    const char* b;
    const char* common;  // "" for none
  } cases[] = {{"sint", "sint", "sint"},
               {"dbl", "schr", "dbl"},
               {"decimal(10,2)", "decimal(8,4)", "decimal(12,4)"},
               {"decimal(250,0)", "decimal(10,9)", "decimal(255,9)"},
               {"char(3)", "varchar(10)", "varchar(10)"},
               {"date", "timestamp", ""},
               {"sint", "str", ""}};
  for (const auto& c : cases) {
    const uint32_t a = ltype_parse(c.a), b = ltype_parse(c.b);
    const uint32_t expected = *c.common ? ltype_parse(c.common) : 0;
    EXPECT_EQ(ltype_common(a, b), expected) << c.a << " " << c.b;
    EXPECT_EQ(ltype_common(b, a), expected) << c.b << " " << c.a;
  }
}

// Edge values the printer goldens do not show (those print every type through this call).
TEST(ValueToString, EdgeValues) {
  s128 min, wide;
  s128_from_string_ptr("-170141183460469231731687303715884105728", &min);
  s128_from_string_ptr("12345678901234567890123", &wide);
  EXPECT_EQ(print<s128>(LTYPE_S128, min), "-170141183460469231731687303715884105728");
  EXPECT_EQ(print<s128>(word(LTYPE_DECIMAL, 30, 5), wide), "123456789012345678.90123");
  EXPECT_EQ(print<int16_t>(word(LTYPE_DECIMAL, 4, 4), 7), "0.0007");
  EXPECT_EQ(print<uint32_t>(LTYPE_SINT, 0x80000000u), "-2147483648");
  EXPECT_EQ(print<double>(kMoney, 5.0), "$ 0.05");
  EXPECT_EQ(print<int64_t>(LTYPE_TIMESTAMP, 719528LL * 86400 + 3661), "1970-01-01 01:01:01");
  EXPECT_EQ(print<int64_t>(LTYPE_INTERVALDS, -90061), "-1 01:01:01");
}

TEST(ValueToString, PhysicalTypeDecidesBeforeLogical) {
  // Money reads a double whatever the column's physical type says.
  EXPECT_EQ(print<double>(kMoney, 250.0, "slng"), "$ 2.50");
  // A decimal held in a double.
  EXPECT_EQ(print<double>(word(LTYPE_DECIMAL, 10, 2), -12345.9, "dbl"), "-123.45");
  // A "flt" column may carry "dbl" and is printed with seven digits.
  EXPECT_EQ(print<float>(LTYPE_FLT8, 1.0f / 3, "flt"), "0.3333333");
  // An integer column with a type that has no integer form.
  EXPECT_EQ(print<int32_t>(word(LTYPE_VCHAR, 4), 7, "sint"), "UNKNOWNTYPE");
  EXPECT_EQ(print<int32_t>(0, 7, "sint"), "UNKNOWNTYPE");
  // An eight-byte integer in a sixteen-byte column reads the low word.
  EXPECT_EQ(print<s128>(LTYPE_SLNG, s128{42, 0}, "s128"), "42");
  PhysicalType bit = ptype_new("bit");  // width class 1 reads nothing
  bit.width_class = 1;
  char buffer[32];
  uint8_t v = 1;
  EXPECT_EQ(value_to_string(buffer, sizeof buffer, &bit, LTYPE_BOOL, &v), 5);
  EXPECT_STREQ(buffer, "false");
}

TEST(ValueToString, TooSmallBufferAnswersMinusOne) {
  char buffer[8];
  int64_t big = -1234567890123;
  EXPECT_EQ(value_to_string(buffer, sizeof buffer, ltype_physical(LTYPE_SLNG), LTYPE_SLNG, &big),
            -1);
  EXPECT_STREQ(buffer, "-123456");
  s128 wide{123456789, 0};
  const uint32_t type = word(LTYPE_DECIMAL, 20, 2);
  EXPECT_EQ(value_to_string(buffer, sizeof buffer, ltype_physical(type), type, &wide), -1);
  EXPECT_EQ(std::strlen(buffer), 7u);
  char exact[11];
  EXPECT_EQ(value_to_string(exact, sizeof exact, ltype_physical(type), type, &wide), 10);
  EXPECT_STREQ(exact, "1234567.89");
}

TEST(ValueToString, CodePointsOfEveryLength) {
  struct Case {
    uint32_t c;
    const char* bytes;
  } cases[] = {{0x41, "A"},
               {0x7FF, "\xDF\xBF"},
               {0x800, "\xE0\xA0\x80"},
               {0xFFFF, "\xEF\xBF\xBF"},
               {0x10000, "\xF0\x90\x80\x80"},
               {0x1FFFFF, "\xF7\xBF\xBF\xBF"},
               {0x200000, "\xF8\x88\x80\x80\x80"},
               {0x4000000, "\xFC\x84\x80\x80\x80\x80"}};
  const uint32_t type = word(LTYPE_CHAR, 1);
  for (const auto& c : cases) EXPECT_EQ(print<uint32_t>(type, c.c), c.bytes) << std::hex << c.c;
  char buffer[3] = {'x', 'x', 'x'};
  int32_t euro = 0x20AC;  // three bytes: no room left for the terminator
  EXPECT_EQ(value_to_string(buffer, 3, ltype_physical(type), type, &euro), 3);
  EXPECT_EQ(buffer[0], 0);
  EXPECT_EQ(value_to_string(buffer, 0, ltype_physical(type), type, &euro), 3);
}

TEST(ValueToString, IntegersMatchPrintfOverRandomSample) {
  std::mt19937_64 rng(testing::UnitTest::GetInstance()->random_seed());
  std::printf("seed %d\n", testing::UnitTest::GetInstance()->random_seed());
  for (int i = 0; i < 20000; ++i) {
    uint64_t bits = rng() >> (rng() % 64);
    char expected[64];
    std::snprintf(expected, sizeof expected, "%" PRId64, static_cast<int64_t>(bits));
    ASSERT_EQ(print<uint64_t>(LTYPE_SLNG, bits), expected);
    std::snprintf(expected, sizeof expected, "%" PRIu64, bits);
    ASSERT_EQ(print<uint64_t>(LTYPE_ULNG, bits), expected);
    std::snprintf(expected, sizeof expected, "%d", static_cast<int16_t>(bits));
    ASSERT_EQ(print<uint16_t>(LTYPE_SSHT, static_cast<uint16_t>(bits)), expected);
  }
}

// The conversion chosen once per column gives value_to_string's text and result for every
// physical type and every logical type it may carry, over random values and buffer sizes down to
// a cut (a mismatch in one direct conversion shows here).
TEST(ValueTextFn, SameTextAsValueToStringForEveryPair) {
  const char* const logical[] = {
      "bool",          "schr", "ssht",    "sint",         "slng",          "s128",
      "uchr",          "uint", "ulng",    "decimal(9,2)", "decimal(18,0)", "decimal(18,5)",
      "decimal(30,3)", "flt",  "dbl",     "money",        "char(1)",       "char(4)",
      "str",           "date", "time(3)", "timestamp",    "intervalds",    "intervalym"};
  const char* const texts[] = {"", "abc", "h\xC3\xA9llo w\xC3\xB6rld, a longer text"};
  std::mt19937_64 rng(20240229);
  for (uint32_t k = 0; k < ptype_count(); ++k) {
    const PhysicalType* physical = ptype_get(k);
    const std::string name = physical->name;
    for (const char* type_name : logical) {
      const uint32_t type = ltype_parse(type_name);
      const uint32_t id = type & 0xFF;
      const bool text = id == LTYPE_CHAR || id == LTYPE_VCHAR;
      const bool real = id == LTYPE_FLT4 || id == LTYPE_FLT8;
      const bool refused = (name == "dbl" && id != LTYPE_FLT8 && id != LTYPE_DECIMAL) ||
                           (name == "flt" && !real) || (name == "str" && !text);
      if (name == "ptr" || (id != LTYPE_MONEY && refused)) continue;
      const ValueTextFn fn = value_text_fn(physical, type);
      for (int i = 0; i < 200; ++i) {
        unsigned char value[16];
        for (unsigned char& b : value) b = static_cast<unsigned char>(rng());
        if (i % 4 == 0) std::memset(value + 4, value[3] & 0x80 ? 0xFF : 0, 12);  // small values
        if (id == LTYPE_DATE && i % 2) {  // days of the common years
          const int32_t day = 700000 + static_cast<int32_t>(rng() % 100000);
          std::memcpy(value, &day, sizeof day);
          std::memset(value + 4, 0, 12);
        }
        if (name == "str") std::memcpy(value, &texts[i % 3], sizeof texts[0]);
        for (size_t size : {size_t{128}, size_t{6}}) {
          char want[128], got[128];
          std::memset(want, 'x', sizeof want);
          std::memset(got, 'x', sizeof got);
          const int w = value_to_string(want, size, physical, type, value);
          ASSERT_EQ(fn(got, size, physical, type, value), w) << name << " " << type_name;
          ASSERT_EQ(std::memcmp(got, want, sizeof want), 0)
              << name << " " << type_name << ": " << want << " vs " << got;
        }
      }
    }
  }
}

TEST(ValueToStringDeathTest, MismatchedPhysicalTypeAsserts) {
  double d = 1.0;
  float f = 1.0f;
  const char* s = "x";
  EXPECT_DEATH(value_to_string(nullptr, 0, ptype_lookup("dbl"), LTYPE_FLT4, &d),
               "assertion \"tid == LTYPE_FLT8\" failed");
  EXPECT_DEATH(value_to_string(nullptr, 0, ptype_lookup("flt"), LTYPE_SINT, &f),
               "assertion \"tid == LTYPE_FLT4 \\|\\| tid == LTYPE_FLT8\" failed");
  EXPECT_DEATH(value_to_string(nullptr, 0, ptype_lookup("str"), LTYPE_DATE, &s),
               "assertion \"tid == LTYPE_CHAR \\|\\| tid == LTYPE_VCHAR\" failed");
}

// Text to value and back.
class ValueFromString : public ::testing::Test {
 protected:
  void SetUp() override { context = query_context_create(nullptr); }
  void TearDown() override { query_context_destroy(context); }
  QueryContext* context = nullptr;

  std::string normalise(uint32_t type, const char* text) {
    char* out = value_normalise(context, type, text);
    return out ? out : "<null>";
  }
  const KestError* last_error() {
    KestError* e = context->errors;
    while (e && e->next) e = e->next;
    return e;
  }
  std::string param(int i) {
    const KestError* e = last_error();
    return e && i < e->num_err_params && e->params[i] ? e->params[i] : "<none>";
  }
};

TEST_F(ValueFromString, NormalisedTexts) {
  struct Case {
    const char* type;
    const char* text;
    const char* expected;
  } cases[] = {{"bool", "TRUE", "true"},
               {"schr", "-128", "-128"},
               {"dbl", "2.5e3", "2500"},
               {"s128", "-170141183460469231731687303715884105728",
                "-170141183460469231731687303715884105728"},
               {"decimal(5,2)", "-0.005", "-0.01"},
               {"money", "$ 12.345", "$ 12.35"},
               {"date", "2024-2-29", "2024-02-29"},
               {"timestamp(2)", "1999-12-31T23:59:59.99", "1999-12-31 23:59:59.99"},
               {"intervalds(1)", "12:00:00.5", "0 12:00:00.5"},
               {"intervalym", "-0-01", "-0-01"}};
  for (const auto& c : cases)
    EXPECT_EQ(normalise(ltype_parse(c.type), c.text), c.expected) << c.text;
  EXPECT_EQ(context->errors, nullptr);
}

TEST_F(ValueFromString, RefusedTextsRaiseTheirError) {
  struct Case {
    const char* type;
    const char* text;
    int32_t code;
  } cases[] = {{"bool", "yes", KEST_ERR_NOT_BOOL},
               {"s128", "170141183460469231731687303715884105728", KEST_ERR_NOT_NUMBER},
               {"decimal(5,2)", "12a", KEST_ERR_NOT_NUMBER},
               {"decimal(5,2)", "999.995", KEST_ERR_CONVERSION},
               {"decimal(20,2)", "1", KEST_ERR_CONVERSION},
               {"money", "$$ dollars", KEST_ERR_NOT_MONEY},
               {"date", "2023-02-29", KEST_ERR_CONVERSION},
               {"intervalym", "1-12", KEST_ERR_CONVERSION},
               {"varchar(4)", "abcd", KEST_ERR_CONVERSION}};
  for (const auto& c : cases) {
    context->errors = nullptr;  // each case starts with no pending error
    EXPECT_EQ(normalise(ltype_parse(c.type), c.text), "<null>") << c.text;
    ASSERT_NE(last_error(), nullptr) << c.text;
    EXPECT_EQ(last_error()->code, c.code) << c.text;
    EXPECT_EQ(param(0), c.text);
  }
}

TEST_F(ValueFromString, ConversionErrorNamesBothTypes) {
  unsigned char out[16];
  EXPECT_EQ(value_from_string(context, out, LTYPE_DATE, "soon"), KEST_ERR_CONVERSION);
  EXPECT_EQ(param(0) + "," + param(1) + "," + param(2), "soon,str,date");
  // A money text that does not read adds no error over a pending one, and stores 0.
  EXPECT_EQ(value_from_string(context, out, kMoney, "none"), KEST_ERR_NOT_MONEY);
  EXPECT_EQ(last_error()->code, KEST_ERR_CONVERSION);
  double cents;
  std::memcpy(&cents, out, sizeof cents);
  EXPECT_EQ(cents, 0.0);
}

TEST_F(ValueFromString, StoresWithTheStorageWidth) {
  unsigned char out[16];
  std::memset(out, 0xAA, sizeof out);
  ASSERT_EQ(value_from_string(context, out, word(LTYPE_DECIMAL, 4, 1), "-12.5"), 0);
  int16_t v16;
  std::memcpy(&v16, out, 2);
  EXPECT_EQ(v16, -125);
  EXPECT_EQ(out[2], 0xAA);
  ASSERT_EQ(value_from_string(context, out, word(LTYPE_TIME, 0, 4), "01:00:00"), 0);
  int32_t v32;
  std::memcpy(&v32, out, 4);
  EXPECT_EQ(v32, 36000000);
  EXPECT_EQ(out[4], 0xAA);
}

}  // namespace
