#include "kernel/ltype.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

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

// Accepted names log nothing; a refused one logs its name and parameters and gives 0.
TEST(LtypeParse, NamesAndParameters) {
  struct Case {
    const char* text;
    uint32_t expected;
    const char* log;
  } cases[] = {
      {"decimal", word(LTYPE_DECIMAL, 10, 0), ""},
      {"decimal(12, 2)", word(LTYPE_DECIMAL, 12, 2), ""},
      {"integer(1)", LTYPE_SCHR, ""},
      {"timestamp(9)", word(LTYPE_TIMESTAMP, 0, 6), ""},  // clamped; time and interval are not
      {"time(9)", word(LTYPE_TIME, 0, 9), ""},  // "time" is not taken for a prefix of "timestamp"
      {"char", word(LTYPE_CHAR, 1), ""},
      {"char(70000)", word(LTYPE_CHAR, 70000), ""},
      // Capitals stop the parameter scan, not the name match.
      {"Decimal(12,2)", word(LTYPE_DECIMAL, 10, 0), ""},
      {"integer(3)", 0, "unknown type <integer(3)(3,0)>"},
      {"timestampz", 0, "unknown type <timestampz(0,0)>"}};
  for (const auto& c : cases) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(ltype_parse(c.text), c.expected) << c.text;
    const std::string log = testing::internal::GetCapturedStderr();
    if (*c.log) {
      EXPECT_THAT(log, testing::AllOf(testing::HasSubstr(c.log), testing::HasSubstr("LTYPE")));
    } else {
      EXPECT_EQ(log, "") << c.text;
    }
  }
}

// Each type: its text as the header prints it (which parses back to the same word), display width,
// digits, the physical type its values use, and the text of a value stored in it. Integers stand
// in the low bytes of a value filled with 0x55, so a read of the wrong width shows.
TEST(LtypeTable, EveryTypeFromTextToValueText) {
  struct Case {
    const char* text;
    int width, digits;
    const char* physical;
    int64_t value;
    const char* value_text;  // null: not stored as an integer
  } cases[] = {
      {"bool", 5, 1, "uchr", 2, "true"},
      {"schr", 4, 3, "schr", -128, "-128"},
      {"uchr", 3, 3, "uchr", 255, "255"},
      {"ssht", 6, 5, "ssht", -32768, "-32768"},
      {"sint", 11, 10, "sint", INT32_MIN, "-2147483648"},
      {"uint", 10, 10, "uint", UINT32_MAX, "4294967295"},
      {"slng", 20, 19, "slng", INT64_MIN, "-9223372036854775808"},
      {"ulng", 19, 19, "ulng", -1, "18446744073709551615"},
      {"s128", 40, 39, "s128", -1, "-1"},
      {"money", 17, 16, "dbl", 0, nullptr},
      {"decimal(2,0)", 3, 2, "schr", -99, "-99"},
      {"decimal(4,4)", 7, 4, "ssht", 7, "0.0007"},
      {"decimal(5,5)", 8, 5, "sint", -5, "-0.00005"},
      {"decimal(10,2)", 12, 10, "slng", -5, "-0.05"},
      {"decimal(19,0)", 20, 19, "s128", -1, "-1"},
      {"decimal(30,3)", 32, 30, "s128", -5, "-0.005"},
      // A one-character char holds a code point: its UTF-8 of every length.
      {"char(1)", 1, 0, "sint", 0x7FF, "\xDF\xBF"},
      {"char(1)", 1, 0, "sint", 0x800, "\xE0\xA0\x80"},
      {"char(1)", 1, 0, "sint", 0x10000, "\xF0\x90\x80\x80"},
      {"char(1)", 1, 0, "sint", 0x200000, "\xF8\x88\x80\x80\x80"},
      {"char(1)", 1, 0, "sint", 0x4000000, "\xFC\x84\x80\x80\x80\x80"},
      {"char(9)", 9, 0, "str", 0, nullptr},
      {"varchar(300)", 300, 0, "str", 0, nullptr},
      {"str", 0, 0, "str", 0, nullptr},
      {"date", 10, 0, "sint", 719528, "1970-01-01"},
      {"time", 8, 0, "sint", 90061, "25:01:01"},
      {"time(4)", 13, 0, "sint", 452967890, "12:34:56.7890"},
      {"time(5)", 14, 0, "slng", 5, "00:00:00.00005"},
      {"timestamp(6)", 26, 0, "slng", 719528LL * 86400 * 1000000 + 5, "1970-01-01 00:00:00.000005"},
      {"intervalds(2)", 20, 0, "slng", -1, "-0 00:00:00.01"},
      {"intervalym", 8, 0, "sint", -14, "-1-02"}};
  MemContext* ctx = mem_context_create(nullptr, "ltype test");
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    const uint32_t type = ltype_parse(c.text);
    EXPECT_EQ(type_text(type), c.text);
    EXPECT_STREQ(ltype_format(ctx, type, 0), c.text);
    EXPECT_EQ(ltype_display_width(type), c.width);
    EXPECT_EQ(ltype_digits(type), c.digits);
    const PhysicalType* p = ltype_physical(type);
    ASSERT_NE(p, nullptr);
    EXPECT_STREQ(p->name, c.physical);
    if (!c.value_text) continue;
    unsigned char value[16];
    std::memset(value, 0x55, sizeof value);
    s128 wide;
    s128_fromint_ptr(&wide, c.value);
    std::memcpy(value, &wide, static_cast<size_t>(ptype_width(p)));
    char buffer[64];
    EXPECT_EQ(value_to_string(buffer, sizeof buffer, p, type, value),
              static_cast<int>(std::strlen(c.value_text)));
    EXPECT_STREQ(buffer, c.value_text);
  }
  // Bare names and "str" are the constant texts, not copies.
  EXPECT_EQ(ltype_format(ctx, LTYPE_VCHAR, 0), ltype_format(ctx, LTYPE_VCHAR, 0));
  mem_context_destroy(ctx);
  int p1 = -1, p2 = -1;
  ltype_params(word(LTYPE_DECIMAL, 12, 3), &p1, &p2);
  EXPECT_TRUE(p1 == 12 && p2 == 3) << p1 << "," << p2;
  for (uint32_t none : {0u, 23u}) {
    EXPECT_EQ(type_text(none), "UNKNOWNTYPE");
    EXPECT_EQ(ltype_display_width(none), 0);
    EXPECT_EQ(ltype_digits(none), 0);
    EXPECT_EQ(ltype_physical(none), nullptr);
  }
  EXPECT_STREQ(ltype_name(0x117), "UNKNOWNTYPE");  // only the low byte counts
  EXPECT_EQ(ptype_lookup("SINT"), nullptr);        // physical names are case-sensitive
  EXPECT_EQ(ptype_get(ptype_count()), nullptr);
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

TEST(LtypeCommon, PairsInBothOrders) {
  const char* const cases[][3] = {{"sint", "sint", "sint"},
                                  {"dbl", "schr", "dbl"},
                                  {"decimal(10,2)", "decimal(8,4)", "decimal(12,4)"},
                                  {"decimal(250,0)", "decimal(10,9)", "decimal(255,9)"},
                                  {"char(3)", "varchar(10)", "varchar(10)"},
                                  {"date", "timestamp", ""},
                                  {"sint", "str", ""}};
  for (const auto& c : cases) {
    const uint32_t a = ltype_parse(c[0]), b = ltype_parse(c[1]);
    const uint32_t expected = *c[2] ? ltype_parse(c[2]) : 0;
    EXPECT_EQ(ltype_common(a, b), expected) << c[0] << " " << c[1];
    EXPECT_EQ(ltype_common(b, a), expected) << c[1] << " " << c[0];
  }
}

TEST(ValueToString, FloatsAndThePhysicalTypeDecidingBeforeTheLogical) {
  EXPECT_EQ(print<double>(kMoney, -1999.0), "$ -19.99");
  EXPECT_EQ(print<float>(LTYPE_FLT4, 0.1f), "0.1");
  EXPECT_EQ(print<double>(LTYPE_FLT8, 0.1), "0.1");
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

TEST(ValueToString, TooSmallBuffer) {
  char buffer[8];
  int64_t big = -1234567890123;
  EXPECT_EQ(value_to_string(buffer, sizeof buffer, ltype_physical(LTYPE_SLNG), LTYPE_SLNG, &big),
            -1);
  EXPECT_STREQ(buffer, "-123456");
  s128 wide{123456789, 0};
  const uint32_t type = word(LTYPE_DECIMAL, 20, 2);
  EXPECT_EQ(value_to_string(buffer, sizeof buffer, ltype_physical(type), type, &wide), -1);
  EXPECT_EQ(std::strlen(buffer), 7u);
  int64_t cents = -123456;  // a decimal in eight bytes, cut as well
  const uint32_t dec = word(LTYPE_DECIMAL, 12, 2);
  EXPECT_EQ(value_to_string(buffer, sizeof buffer, ltype_physical(dec), dec, &cents), -1);
  EXPECT_STREQ(buffer, "-1234.5");
  char exact[11];
  EXPECT_EQ(value_to_string(exact, sizeof exact, ltype_physical(type), type, &wide), 10);
  EXPECT_STREQ(exact, "1234567.89");
  // A code point that does not fit leaves the buffer empty and answers its length.
  const uint32_t c1 = word(LTYPE_CHAR, 1);
  int32_t euro = 0x20AC;
  EXPECT_EQ(value_to_string(exact, 3, ltype_physical(c1), c1, &euro), 3);
  EXPECT_EQ(exact[0], 0);
  EXPECT_EQ(value_to_string(exact, 0, ltype_physical(c1), c1, &euro), 3);
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
        if (i % 4 == 1) {  // every digit count up to ten, either sign
          int64_t small = static_cast<int64_t>(rng() % 10000000000ull);
          for (uint64_t cut = rng() % 10; cut > 0; --cut) small /= 10;
          if (rng() & 1) small = -small;
          std::memcpy(value, &small, sizeof small);
          std::memset(value + 8, small < 0 ? 0xFF : 0, 8);
        }
        if (id == LTYPE_DATE && i % 2) {  // days of the common years
          const int32_t day = 700000 + static_cast<int32_t>(rng() % 100000);
          std::memcpy(value, &day, sizeof day);
          std::memset(value + 4, 0, 12);
        }
        if (name == "str") std::memcpy(value, &texts[i % 3], sizeof texts[0]);
        // The same text and result; the bytes past the text may differ (a conversion may use
        // them), but nothing at or past `size` is touched.
        for (size_t size : {size_t{128}, size_t{6}}) {
          char want[160], got[160];
          std::memset(want, 'x', sizeof want);
          std::memset(got, 'x', sizeof got);
          const int w = value_to_string(want, size, physical, type, value);
          ASSERT_EQ(fn(got, size, physical, type, value), w) << name << " " << type_name;
          ASSERT_EQ(std::string(got), std::string(want)) << name << " " << type_name;
          ASSERT_EQ(std::string(got + size, sizeof got - size), std::string(sizeof got - size, 'x'))
              << name << " " << type_name << " wrote past the buffer";
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

// Text to value, through every reader, printed back; or the error raised with the text as its
// first parameter (a conversion error also names "str" and the type).
TEST(ValueFromString, NormalisedTextsAndErrors) {
  struct Case {
    const char* type;
    const char* text;
    const char* expected;  // null when refused
    int32_t code;
  } cases[] = {{"bool", "yes", nullptr, KEST_ERR_NOT_BOOL},
               {"s128", "-170141183460469231731687303715884105728",
                "-170141183460469231731687303715884105728", 0},
               {"s128", "170141183460469231731687303715884105728", nullptr, KEST_ERR_NOT_NUMBER},
               {"decimal(5,2)", " -0.005 ", "-0.01", 0},  // rounded half away from zero
               {"decimal(5,2)", "12a", nullptr, KEST_ERR_NOT_NUMBER},
               {"decimal(5,2)", "999.995", nullptr, KEST_ERR_CONVERSION},
               {"money", " $ $12.345", "$ 12.35", 0},
               {"money", "$$ dollars", nullptr, KEST_ERR_NOT_MONEY},
               {"date", "2023-02-29", nullptr, KEST_ERR_CONVERSION},
               {"time", "1:02:03.9", "01:02:03", 0},  // fraction digits beyond f are dropped
               {"intervalds(2)", "-2 00:00:00.25", "-2 00:00:00.25", 0},
               {"varchar(4)", "abcd", nullptr, KEST_ERR_CONVERSION}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.type) + " " + c.text);
    QueryContext* context = query_context_create(nullptr);
    const uint32_t type = ltype_parse(c.type);
    const char* out = value_normalise(context, type, c.text);
    const KestError* e = context->errors;
    if (c.expected) {
      EXPECT_STREQ(out, c.expected);
      EXPECT_EQ(e, nullptr);
    } else {
      EXPECT_EQ(out, nullptr);
      ASSERT_NE(e, nullptr);
      EXPECT_EQ(e->code, c.code);
      std::string params;
      for (int i = 0; i < e->num_err_params; ++i) params += std::string(e->params[i]) + ",";
      EXPECT_EQ(
          params,
          std::string(c.text) + "," +
              (c.code == KEST_ERR_CONVERSION ? "str," + std::string(ltype_name(type)) + "," : ""));
    }
    query_context_destroy(context);
  }
}

}  // namespace
