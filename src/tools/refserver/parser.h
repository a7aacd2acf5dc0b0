// The query language of the reference server, a small exact subset of the algebra:
//
//   rel   := Array '(' '[' NAME '=' INTEGER (',' NAME '=' INTEGER)* ']' ')'
//          | Project '(' rel ',' '[' item (',' item)* ']' ')'
//          | Select '(' rel ',' expr ')'
//   item  := NAME '=' expr | NAME                  (a bare NAME keeps that column)
//   expr  := INTEGER | DECIMAL | 'text' | true | false | NAME
//          | callee '(' [expr (',' expr)*] ')'     (callee: a word or an operator sign)
//
// Relation names are matched without regard to case. Tokens come from the system's scanner, so
// strings, escapes, here-documents and comments read exactly as the client splits them. A query
// may end with one ";".
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

struct QueryContext;

struct Expr {
  enum class Kind { integer, decimal, text, boolean, column, call };
  Kind kind = Kind::integer;
  std::string text;  // literal text (decoded for strings), column name or callee
  std::vector<Expr> args;
};

struct RelNode {
  enum class Kind { array, project, select };
  struct Dim {
    std::string name;
    std::string size;  // the integer literal as written
  };
  struct Item {
    std::string name;
    Expr expr;
  };
  Kind kind = Kind::array;
  std::vector<Dim> dims;           // array
  std::unique_ptr<RelNode> input;  // project, select
  std::vector<Item> items;         // project
  Expr predicate;                  // select
};

// Tokens a query may hold. Each costs a few dozen bytes while parsing, so this bounds what a
// long query costs the server to a few tens of megabytes beyond its text.
constexpr size_t kMaxQueryTokens = 1000000;

// Parses one query. A syntax error is recorded on `ctx` as error 10 with the source name "query",
// the line and column (from 1) and what was found or expected, and QueryFailed is thrown
// (query_error.h); an unknown relation name is error 13. Text nested deeper than
// kMaxQueryNesting levels (query_error.h) is error 10 too, "nesting deeper than 256 levels", at
// the token that would open the next level; a query of more than kMaxQueryTokens tokens is error
// 10 at the first token past the limit.
std::unique_ptr<RelNode> parse_query(QueryContext* ctx, const std::string& text);
