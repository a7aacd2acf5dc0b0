// The query splitter: cuts a script of algebra queries into single queries at ";", using the
// scanner so that a ";" inside a string, a here-document or a comment does not end a query.
// A query is handed out as it stands in the input (comments and inner whitespace included),
// with leading whitespace dropped and its terminating ";" removed. Single-threaded.
#pragma once

#include <cstdio>

struct MemContext;
struct Scanner;
struct sb;

struct QuerySplitter {
  char* s;     // string mode: private copy of the input; null in file mode
  FILE* file;  // file mode: the stream read from (borrowed, never closed here)
  // The consumed input, from the first byte of the current statement on in file mode (what lies
  // before it is dropped when the next statement starts, so a script of any length needs room
  // for its longest statement only); the whole string in string mode. Queries point into it.
  sb* text;
  Scanner* lss;             // the scanner, in scanner_ctx
  MemContext* ctx;          // "querysplitter"
  MemContext* scanner_ctx;  // "scanner", child of ctx
  bool file_ended;          // the stream reported its end or an error; it is not asked again
  bool read_failed;         // file mode: the stream reported a read error (see below)
};

// A splitter reading `file` one byte per call (look-ahead included: when a query is handed out,
// the byte after its ";" has already been read, so the caller must not read `file` itself
// meanwhile). `file` must outlive the splitter. Null when the splitter cannot be allocated.
// A read error of the stream ends the input as its end would, except that a statement it cut
// short is not handed out: query_splitter_next returns null and read_failed is set, for the
// caller to report (the splitter prints nothing). Statements ended by ";" before it still come.
// REQUIRES: file != null (asserted as "qs->file && !qs->s" at the first read).
QuerySplitter* query_splitter_create_file(FILE* file);
// A splitter over a copy of `text` (the caller's string is not kept). Null on allocation
// failure or when the text is 2^31 - 1 bytes or longer.
// REQUIRES: text != null (asserted as "qs->s").
QuerySplitter* query_splitter_create_string(const char* text);

// The next query, NUL-terminated, or null when the input holds no further query. The text lives
// in the splitter's buffer and stays valid only until the next call of query_splitter_next or
// query_splitter_free. Empty statements (";;") are skipped. An unclassifiable character (a
// control character) in the middle of a statement ends that statement there, with no NUL written
// after it (its text runs on to the end of what has been read). Where a statement starts, it
// ends the input (null) when the token text before it was empty, and otherwise fails the
// assertion "*qs->lss->yytext == 0".
const char* query_splitter_next(QuerySplitter* qs);

// Releases everything the splitter holds; null is ignored. The file stays open.
void query_splitter_free(QuerySplitter* qs);
