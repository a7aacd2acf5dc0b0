// Token kinds of the algebra scanner and its keyword table.
#pragma once

#include <cstddef>
#include <cstdint>

// Every kind the scanner returns. A punctuation character without a kind of its own (brackets,
// comma, dot, colon, "}", "~" and the like) comes back as its character code.
enum ScannerTokenKind : int32_t {
  TOK_END = -1,      // end of statement (";"), end of input, or an unclassifiable character
  TOK_ASSIGN = 61,   // a lone "="
  TOK_STRING = 258,  // quoted string or here-document, text decoded
  TOK_TRUE = 259,
  TOK_FALSE = 260,
  TOK_INTEGER = 261,
  TOK_DECIMAL = 262,
  TOK_IDENT = 263,
  TOK_AS = 264,
  TOK_AGGR_FUNC = 267,  // count, max, min, prod, sum, avg
  TOK_OPERATOR = 268,
  TOK_SELECT = 269,
  TOK_ASSERT = 270,
  TOK_ASSERTNOT = 271,
  TOK_PROJECT = 272,
  TOK_ARRAY = 273,
  TOK_DIMENSION = 274,
  TOK_AGGR = 275,
  TOK_ORDAGGR = 276,
  TOK_FIXEDAGGR = 277,
  TOK_DIRECTAGGR = 278,
  TOK_DENSEAGGR = 279,
  TOK_DERIVED = 280,
  TOK_CARTPROD = 281,
  TOK_ASC = 282,
  TOK_DESC = 283,
  TOK_TOPN = 284,
  TOK_SORT = 285,
  TOK_STABLESORT = 286,
  TOK_WINDOW = 287,
  TOK_FLOWMAT = 288,
  TOK_FETCH1 = 289,
  TOK_FETCHN = 290,
  TOK_ALIGNJOIN = 291,
  TOK_MSCAN = 292,
  TOK_SYSSCAN = 293,
  TOK_BINARYSCAN = 294,
  TOK_EXTRA_NAME = 295,  // a name from the extra-names table
  TOK_UNION = 296,
  TOK_MERGEJOIN1 = 297,
  TOK_MERGEOUTERJOIN1 = 298,
  TOK_MERGEJOIN1N = 299,
  TOK_MERGEOUTERJOIN1N = 300,
  TOK_MERGEFETCH1 = 301,
  TOK_MERGEFINDINSERTRID = 302,
  TOK_MERGEUNION = 303,
  TOK_MERGEDIFF = 304,
  TOK_CHUNK = 305,
  TOK_PRINT = 306,
  TOK_NULLOP = 307,
  TOK_XCHGUNION = 308,
  TOK_XCHGBROADCAST = 309,
  TOK_XCHGDYNAMICSPLIT = 310,
  TOK_XCHGDYNAMICHASHSPLIT = 311,
  TOK_XCHGHASHSPLIT = 312,
  TOK_VECTOR_STR = 313,
  TOK_CRASH = 314,
  TOK_PARTAGGR = 315,
  TOK_BEP = 316,
  TOK_HASHJOIN01 = 317,
  TOK_HASHJOIN1 = 318,
  TOK_HASHJOINN = 319,
  TOK_HASHANTIJOIN = 320,
  TOK_HASHSEMIJOIN = 321,
  TOK_HASHREVANTIJOIN = 322,
  TOK_HASHREVSEMIJOIN = 323,
  TOK_SYS = 324,
  TOK_SAVEPOINT = 325,
  TOK_COMMIT = 326,
  TOK_ABORT = 327,
  TOK_CREATETABLE = 328,
  TOK_DROPTABLE = 329,
  TOK_NULLABLE = 330,
  TOK_ADDCOLUMN = 331,
  TOK_DROPCOLUMN = 332,
  TOK_MINMAXINDEX = 333,
  TOK_SPARSEINDEX = 334,
  TOK_DROPINDEX = 335,
  TOK_CREATELOCATION = 336,
  TOK_DROPLOCATION = 337,
  TOK_SORTKEY = 338,
  TOK_FOREIGNKEY = 339,
  TOK_UNIQUEKEY = 340,
  TOK_PRIMARYKEY = 341,
  TOK_DROPKEY = 342,
  TOK_JOININDEX = 343,  // joinindex, jindex
  TOK_TYPE_NAME = 344,  // a name from the physical type registry
  TOK_INT = 345,        // int, integer
  TOK_DEC = 346,        // dec, decimal
  TOK_FLOAT = 347,
  TOK_CHAR = 348,
  TOK_VARCHAR = 349,
  TOK_DATE = 350,
  TOK_TIME = 351,
  TOK_TIMESTAMP = 352,
  TOK_INTERVALDS = 353,
  TOK_INTERVALYM = 354,
  TOK_MONEY = 355,
  TOK_INNER = 356,
  TOK_LEFTOUTER = 357,
  TOK_RIGHTOUTER = 358,
  TOK_OUTER = 359,  // outer, fullouter
  TOK_INSERT = 360,
  TOK_DELETE = 361,
  TOK_MODIFY = 362,
  TOK_BAD_TEXT = 363,  // word or string that is not well-formed UTF-8 ("wrong_utf8_val")
  TOK_LOCATION = 364,
};

struct ScannerKeyword {
  const char* word;
  int32_t kind;
};

// The keyword rows in the order they are tried (first match wins, ASCII case-insensitive), then
// one row with a null word.
constexpr size_t kScannerKeywordCount = 106;
extern const ScannerKeyword scanner_keywords[kScannerKeywordCount + 1];

// The kind of `word` (`length` bytes, any bytes) when it is a keyword, else 0.
int32_t scanner_keyword_kind(const char* word, size_t length);
