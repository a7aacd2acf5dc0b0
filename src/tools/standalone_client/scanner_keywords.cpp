#include "tools/standalone_client/scanner_keywords.h"

#include <array>
#include <string_view>

extern constexpr ScannerKeyword scanner_keywords[kScannerKeywordCount + 1] = {
    {"abort", TOK_ABORT},
    {"addcolumn", TOK_ADDCOLUMN},
    {"aggr", TOK_AGGR},
    {"alignjoin", TOK_ALIGNJOIN},
    {"array", TOK_ARRAY},
    {"assert", TOK_ASSERT},
    {"assertnot", TOK_ASSERTNOT},
    {"bep", TOK_BEP},
    {"binaryscan", TOK_BINARYSCAN},
    {"cartprod", TOK_CARTPROD},
    {"char", TOK_CHAR},
    {"chunk", TOK_CHUNK},
    {"commit", TOK_COMMIT},
    {"crash", TOK_CRASH},
    {"createlocation", TOK_CREATELOCATION},
    {"createtable", TOK_CREATETABLE},
    {"date", TOK_DATE},
    {"dec", TOK_DEC},
    {"decimal", TOK_DEC},
    {"delete", TOK_DELETE},
    {"denseaggr", TOK_DENSEAGGR},
    {"directaggr", TOK_DIRECTAGGR},
    {"dropindex", TOK_DROPINDEX},
    {"dropkey", TOK_DROPKEY},
    {"droplocation", TOK_DROPLOCATION},
    {"droptable", TOK_DROPTABLE},
    {"dropcolumn", TOK_DROPCOLUMN},
    {"fetch1", TOK_FETCH1},
    {"fetchN", TOK_FETCHN},
    {"fixedaggr", TOK_FIXEDAGGR},
    {"float", TOK_FLOAT},
    {"flowmat", TOK_FLOWMAT},
    {"foreignkey", TOK_FOREIGNKEY},
    {"hashantijoin", TOK_HASHANTIJOIN},
    {"hashjoin01", TOK_HASHJOIN01},
    {"hashjoin1", TOK_HASHJOIN1},
    {"hashjoinN", TOK_HASHJOINN},
    {"hashrevantijoin", TOK_HASHREVANTIJOIN},
    {"hashrevsemijoin", TOK_HASHREVSEMIJOIN},
    {"hashsemijoin", TOK_HASHSEMIJOIN},
    {"insert", TOK_INSERT},
    {"int", TOK_INT},
    {"integer", TOK_INT},
    {"intervalds", TOK_INTERVALDS},
    {"intervalym", TOK_INTERVALYM},
    {"joinindex", TOK_JOININDEX},
    {"jindex", TOK_JOININDEX},
    {"location", TOK_LOCATION},
    {"mergediff", TOK_MERGEDIFF},
    {"mergefetch1", TOK_MERGEFETCH1},
    {"mergefindinsertrid", TOK_MERGEFINDINSERTRID},
    {"mergejoin1", TOK_MERGEJOIN1},
    {"mergejoin1N", TOK_MERGEJOIN1N},
    {"mergeouterjoin1", TOK_MERGEOUTERJOIN1},
    {"mergeouterjoin1N", TOK_MERGEOUTERJOIN1N},
    {"mergeunion", TOK_MERGEUNION},
    {"minmaxindex", TOK_MINMAXINDEX},
    {"modify", TOK_MODIFY},
    {"money", TOK_MONEY},
    {"mscan", TOK_MSCAN},
    {"nullable", TOK_NULLABLE},
    {"nullop", TOK_NULLOP},
    {"ordaggr", TOK_ORDAGGR},
    {"partaggr", TOK_PARTAGGR},
    {"primarykey", TOK_PRIMARYKEY},
    {"print", TOK_PRINT},
    {"project", TOK_PROJECT},
    {"savepoint", TOK_SAVEPOINT},
    {"select", TOK_SELECT},
    {"sort", TOK_SORT},
    {"sortkey", TOK_SORTKEY},
    {"sparseindex", TOK_SPARSEINDEX},
    {"stablesort", TOK_STABLESORT},
    {"sys", TOK_SYS},
    {"sysscan", TOK_SYSSCAN},
    {"time", TOK_TIME},
    {"timestamp", TOK_TIMESTAMP},
    {"topn", TOK_TOPN},
    {"union", TOK_UNION},
    {"uniquekey", TOK_UNIQUEKEY},
    {"varchar", TOK_VARCHAR},
    {"window", TOK_WINDOW},
    {"xchgbroadcast", TOK_XCHGBROADCAST},
    {"xchgdynamicsplit", TOK_XCHGDYNAMICSPLIT},
    {"xchgdynamichashsplit", TOK_XCHGDYNAMICHASHSPLIT},
    {"xchghashsplit", TOK_XCHGHASHSPLIT},
    {"xchgunion", TOK_XCHGUNION},
    {"vector_str", TOK_VECTOR_STR},
    {"as", TOK_AS},
    {"asc", TOK_ASC},
    {"count", TOK_AGGR_FUNC},
    {"derived", TOK_DERIVED},
    {"desc", TOK_DESC},
    {"dimension", TOK_DIMENSION},
    {"false", TOK_FALSE},
    {"fullouter", TOK_OUTER},
    {"inner", TOK_INNER},
    {"leftouter", TOK_LEFTOUTER},
    {"max", TOK_AGGR_FUNC},
    {"min", TOK_AGGR_FUNC},
    {"prod", TOK_AGGR_FUNC},
    {"rightouter", TOK_RIGHTOUTER},
    {"outer", TOK_OUTER},
    {"sum", TOK_AGGR_FUNC},
    {"avg", TOK_AGGR_FUNC},
    {"true", TOK_TRUE},
    {nullptr, 0},
};

namespace {

// Fixed ASCII folding: the process locale must not change which words are keywords.
constexpr unsigned char fold(unsigned char c) { return c >= 'A' && c <= 'Z' ? c | 0x20 : c; }

// Rows grouped by folded first byte, each group in table order, so a lookup compares only the
// rows that can match and the first match in table order still wins.
struct RowIndex {
  std::array<uint8_t, kScannerKeywordCount> rows{};
  std::array<uint8_t, 257> begin{};  // rows[begin[c]..begin[c + 1]) start with byte c
  std::array<uint8_t, kScannerKeywordCount> length{};
};

constexpr RowIndex make_row_index() {
  RowIndex index;
  size_t n = 0;
  for (size_t c = 0; c < 256; ++c) {
    index.begin[c] = static_cast<uint8_t>(n);
    for (size_t i = 0; i < kScannerKeywordCount; ++i)
      if (fold(static_cast<unsigned char>(scanner_keywords[i].word[0])) == c)
        index.rows[n++] = static_cast<uint8_t>(i);
  }
  index.begin[256] = static_cast<uint8_t>(n);
  for (size_t i = 0; i < kScannerKeywordCount; ++i)
    index.length[i] = static_cast<uint8_t>(std::string_view(scanner_keywords[i].word).size());
  return index;
}

constexpr RowIndex kIndex = make_row_index();
static_assert(kIndex.begin[256] == kScannerKeywordCount, "every row starts with a byte");

bool equal_folded(const char* a, const char* b, size_t length) {
  for (size_t i = 0; i < length; ++i)
    if (fold(static_cast<unsigned char>(a[i])) != fold(static_cast<unsigned char>(b[i])))
      return false;
  return true;
}

}  // namespace

int32_t scanner_keyword_kind(const char* word, size_t length) {
  if (length == 0) return 0;
  const unsigned char first = fold(static_cast<unsigned char>(word[0]));
  for (size_t k = kIndex.begin[first]; k < kIndex.begin[first + 1]; ++k) {
    const size_t row = kIndex.rows[k];
    if (kIndex.length[row] == length && equal_folded(word, scanner_keywords[row].word, length))
      return scanner_keywords[row].kind;
  }
  return 0;
}
