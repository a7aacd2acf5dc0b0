// Result columns held as the reception holds them, and a printer over them writing to a temporary
// file: what the printer tests of the data formats feed and read back.
#pragma once

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "kernel/ltype.h"
#include "tools/standalone_client/printer.h"

namespace kest_test {

// One result column: fixed-size values one after another, or text values as one pointer each.
struct Col {
  std::string name;
  uint32_t ltype;
  std::vector<unsigned char> bytes;
  std::vector<std::string> texts;
  bool isconst = false;
  const char* physical = nullptr;  // the physical type's name; null: the one the type uses
};

// Values stored as T, which must be the width of the physical type.
template <typename T>
Col col(std::string name, const char* type, std::vector<T> values, bool isconst = false,
        const char* physical = nullptr) {
  Col c{std::move(name), ltype_parse(type), {}, {}, isconst, physical};
  c.bytes.resize(values.size() * sizeof(T));
  if (!values.empty()) std::memcpy(c.bytes.data(), values.data(), c.bytes.size());
  return c;
}

inline Col strs(std::string name, const char* type, std::vector<std::string> values) {
  return Col{std::move(name), ltype_parse(type), {}, std::move(values)};
}

// A null indicator for the column after it: an unnamed one-byte column, non-zero where null.
inline Col nulls(std::vector<uint8_t> flags) { return col<uint8_t>("", "bool", std::move(flags)); }

class PrintedResult {
 public:
  explicit PrintedResult(std::vector<Col> columns) : cols_(std::move(columns)) {
    types_init();
    for (Col& c : cols_) {
      names_.push_back(c.name.data());
      types_.push_back(c.physical ? ptype_lookup(c.physical) : ltype_physical(c.ltype));
      ltypes_.push_back(c.ltype);
      isconst_.push_back(c.isconst);
      pointers_.emplace_back();
      for (const std::string& t : c.texts) pointers_.back().push_back(t.c_str());
    }
  }
  ~PrintedResult() {
    if (file_) std::fclose(file_);
  }
  PrintedResult(const PrintedResult&) = delete;
  PrintedResult& operator=(const PrintedResult&) = delete;

  // Through either form of printer_open: without options, or with them.
  ResultPrinter* open(OutputMode mode) {
    return printer_open(file_, static_cast<int32_t>(cols_.size()), names_.data(), types_.data(),
                        ltypes_.data(), isconst_.data(), mode);
  }
  ResultPrinter* open(OutputMode mode, const PrintOptions& options) {
    return printer_open(file_, static_cast<int32_t>(cols_.size()), names_.data(), types_.data(),
                        ltypes_.data(), isconst_.data(), mode, options);
  }

  // Prints `count` rows starting at row `start` of every non-constant column, through
  // `selection` when given.
  void rows(ResultPrinter* p, int64_t start, int64_t count, const int32_t* selection = nullptr) {
    std::vector<void*> data;
    for (size_t i = 0; i < cols_.size(); ++i) {
      const int64_t skip = cols_[i].isconst ? 0 : start;
      if (cols_[i].texts.empty())
        data.push_back(cols_[i].bytes.data() + skip * ptype_width(types_[i]));
      else
        data.push_back(pointers_[i].data() + skip);
    }
    printer_rows(p, data.data(), selection, count);
  }

  // One printer_rows call per entry of `batches`, then the footer; everything printed.
  std::string run(OutputMode mode, const std::vector<int64_t>& batches,
                  const PrintOptions& options = {}) {
    ResultPrinter* p = open(mode, options);
    if (p == nullptr) return "<no printer>";
    int64_t start = 0;
    for (int64_t n : batches) {
      rows(p, start, n);
      start += n;
    }
    printer_close(p);
    return contents();
  }

  std::FILE* file() const { return file_; }
  // What has reached the file; the printer's own block is not flushed here.
  std::string contents() {
    std::fflush(file_);
    const long end = std::ftell(file_);
    std::string text(static_cast<size_t>(end), '\0');
    std::rewind(file_);
    text.resize(std::fread(text.data(), 1, text.size(), file_));
    std::fseek(file_, end, SEEK_SET);
    return text;
  }

 private:
  std::vector<Col> cols_;
  std::FILE* file_ = std::tmpfile();
  std::vector<char*> names_;
  std::vector<const PhysicalType*> types_;
  std::vector<uint32_t> ltypes_;
  std::vector<int32_t> isconst_;
  std::vector<std::vector<const char*>> pointers_;
};

// Goldens are raw literals that start on the line after the opening delimiter.
inline std::string golden(const char* text) { return text[0] == '\n' ? text + 1 : text; }

inline std::string print(OutputMode mode, std::vector<Col> cols,
                         const std::vector<int64_t>& batches, const PrintOptions& options = {}) {
  return PrintedResult(std::move(cols)).run(mode, batches, options);
}

}  // namespace kest_test
