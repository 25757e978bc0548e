// format.cpp - parsing a format and applying it to values.
#include "format.h"

#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "arrays.h"
#include "qva_host.h"

namespace qva {

namespace {

// One item of a parsed format.
struct Item {
  enum Kind { Code, Text, Skip, NewLine, Group } kind = Code;
  char code = 0;   // Code: I F E G A
  int repeat = 1;
  int width = -1;  // -1: none given
  int digits = -1;
  bool left = false;        // Code: "-" after the letter, left-justified
  bool zeros = false;       // Code: a width written with a leading 0 (I05): zero-filled
  std::string text;         // Text
  std::vector<Item> group;  // Group
};

[[noreturn]] void bad_format(const std::string &format, const std::string &why) {
  qvahost::raise_error("Format error: " + why + " in " + format + ".");
}

class FormatParser {
 public:
  explicit FormatParser(const std::string &f) : f_(f) {}

  std::vector<Item> parse() {
    skip_blanks();
    if (at_end() || f_[pos_] != '(') bad_format(f_, "a format must be in parentheses");
    ++pos_;
    std::vector<Item> items = list(0);
    skip_blanks();
    if (!at_end()) bad_format(f_, "text after the closing parenthesis");
    return items;
  }

 private:
  bool at_end() const { return pos_ >= f_.size(); }
  void skip_blanks() {
    while (!at_end() && (f_[pos_] == ' ' || f_[pos_] == '\t')) ++pos_;
  }
  int number() {
    int n = 0;
    bool any = false;
    while (!at_end() && std::isdigit(static_cast<unsigned char>(f_[pos_]))) {
      n = n * 10 + (f_[pos_++] - '0');
      any = true;
      if (n > 100000) bad_format(f_, "a number too large");
    }
    return any ? n : -1;
  }

  // Items up to the closing parenthesis (which is consumed).
  std::vector<Item> list(int depth) {
    if (depth > 20) bad_format(f_, "groups nested too deeply");
    std::vector<Item> items;
    for (;;) {
      skip_blanks();
      if (at_end()) bad_format(f_, "a missing closing parenthesis");
      char c = f_[pos_];
      if (c == ')') {
        ++pos_;
        return items;
      }
      if (c == ',') {
        ++pos_;
        continue;
      }
      if (c == '/') {
        ++pos_;
        Item newline;
        newline.kind = Item::NewLine;
        items.push_back(std::move(newline));
        continue;
      }
      if (c == '\'' || c == '"') {
        items.push_back(literal(c));
        continue;
      }
      int repeat = number();
      skip_blanks();
      if (at_end()) bad_format(f_, "a missing closing parenthesis");
      Item it;
      it.repeat = repeat < 0 ? 1 : repeat;
      c = static_cast<char>(std::toupper(static_cast<unsigned char>(f_[pos_++])));
      if (c == '(') {
        it.kind = Item::Group;
        it.group = list(depth + 1);
      } else if (c == 'X') {
        it.kind = Item::Skip;
      } else if (c == 'I' || c == 'F' || c == 'E' || c == 'G' || c == 'A' || c == 'D') {
        it.code = c == 'D' ? 'E' : c;
        if (!at_end() && f_[pos_] == '-') {
          it.left = true;
          ++pos_;
        }
        it.zeros = !at_end() && f_[pos_] == '0' && pos_ + 1 < f_.size() &&
                   std::isdigit(static_cast<unsigned char>(f_[pos_ + 1]));
        it.width = number();
        if (!at_end() && f_[pos_] == '.') {
          ++pos_;
          it.digits = number();
          if (it.digits < 0) bad_format(f_, "a missing number after '.'");
        }
      } else {
        bad_format(f_, std::string("an unknown code '") + c + "'");
      }
      items.push_back(std::move(it));
    }
  }

  Item literal(char quote) {
    Item it;
    it.kind = Item::Text;
    ++pos_;
    for (;;) {
      if (at_end()) bad_format(f_, "an unterminated text");
      char c = f_[pos_++];
      if (c == quote) {
        if (!at_end() && f_[pos_] == quote) {
          it.text += quote;
          ++pos_;
          continue;
        }
        return it;
      }
      it.text += c;
    }
  }

  const std::string &f_;
  size_t pos_ = 0;
};

// One value element to be formatted.
struct Datum {
  int type;
  QVA_SDEF sdef;
  const char *data;
};

// A number's field filled with zeros after its sign (I05: -0042).
std::string zero_fill(const std::string &s, int width) {
  if (width <= 0 || static_cast<int>(s.size()) >= width) return s;
  size_t sign = !s.empty() && (s[0] == '-' || s[0] == '+') ? 1 : 0;
  return s.substr(0, sign) + std::string(static_cast<size_t>(width) - s.size(), '0') + s.substr(sign);
}

// A field of `width` (0 or none: as wide as the text), right-aligned.
std::string fit(const std::string &s, int width) {
  if (width <= 0) return s;
  if (static_cast<int>(s.size()) > width) return std::string(static_cast<size_t>(width), '*');
  return std::string(static_cast<size_t>(width) - s.size(), ' ') + s;
}

double real_of(const Datum &d) {
  if (is_numeric_type(d.type)) return get_real(d.type, d.data);
  if (d.type == QVA_TYP_STRING) {
    std::string t = format_element(d.type, d.sdef, d.data);
    char *end = nullptr;
    double v = std::strtod(t.c_str(), &end);
    if (end == t.c_str()) qvahost::raise_error("Type conversion error: Unable to convert given STRING to DOUBLE.");
    return v;
  }
  qvahost::raise_error(std::string("Format error: a number is needed, not ") + qvahost::type_name(d.type) + ".");
}

int default_int_width(int type) {
  switch (type) {
    case QVA_TYP_BYTE: return 4;
    case QVA_TYP_INT: return 8;
    case QVA_TYP_LONG64: return 22;
    default: return 12;
  }
}

std::string exponent_text(double v, int width, int digits, char e) {
  char buf[128];
  std::snprintf(buf, sizeof buf, "%.*E", digits, v);
  std::string s = buf;
  if (e == 'e')
    for (char &c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return fit(s, width);
}

std::string apply(const Item &it, const Datum &d) {
  char buf[512];
  switch (it.code) {
    case 'I': {
      int64_t v = is_integer_type(d.type) ? get_int(d.type, d.data)
                                          : static_cast<int64_t>(std::llround(real_of(d)));
      int w = it.width < 0 ? default_int_width(d.type) : it.width;
      std::snprintf(buf, sizeof buf, "%.*lld", it.digits < 0 ? 1 : it.digits, static_cast<long long>(v));
      return fit(it.zeros ? zero_fill(buf, w) : buf, w);
    }
    case 'F': {
      double v = real_of(d);
      int digits = it.digits < 0 ? (d.type == QVA_TYP_DOUBLE ? 8 : 4) : std::min(it.digits, 100);
      if (!std::isfinite(v)) return fit(std::isnan(v) ? "NaN" : v < 0 ? "-Inf" : "Inf", it.width);
      std::snprintf(buf, sizeof buf, "%.*f", digits, v);
      return fit(it.zeros ? zero_fill(buf, it.width) : buf, it.width);
    }
    case 'E': {
      double v = real_of(d);
      if (!std::isfinite(v)) return fit(std::isnan(v) ? "NaN" : v < 0 ? "-Inf" : "Inf", it.width);
      int digits = it.digits < 0 ? (d.type == QVA_TYP_DOUBLE ? 14 : 6) : std::min(it.digits, 100);
      return exponent_text(v, it.width, digits, 'E');
    }
    case 'G': {
      // Fixed when the value's magnitude suits `digits` significant
      // digits, with four blanks where an exponent would go; otherwise E.
      double v = real_of(d);
      if (!std::isfinite(v)) return fit(std::isnan(v) ? "NaN" : v < 0 ? "-Inf" : "Inf", it.width);
      int digits = it.digits < 0 ? (d.type == QVA_TYP_DOUBLE ? 15 : 7) : std::max(1, std::min(it.digits, 100));
      double a = std::fabs(v);
      if (a == 0 || (a >= 0.1 && a < std::pow(10.0, digits))) {
        int k = a == 0 ? 1 : static_cast<int>(std::floor(std::log10(a))) + 1;
        int decimals = std::max(0, digits - k);
        std::snprintf(buf, sizeof buf, "%.*f", decimals, v);
        int w = it.width < 0 ? -1 : std::max(0, it.width - 4);
        return fit(buf, w) + (it.width < 0 ? "" : "    ");
      }
      return exponent_text(v, it.width, digits - 1, 'E');
    }
    case 'A': {
      std::string s = format_element(d.type, d.sdef, d.data);
      if (it.width <= 0) return s;
      // A text wider than its field keeps its first characters.
      if (static_cast<int>(s.size()) >= it.width) return s.substr(0, static_cast<size_t>(it.width));
      return std::string(static_cast<size_t>(it.width) - s.size(), ' ') + s;
    }
  }
  return "";
}

// A field's text moved to its left edge: its leading blanks go to the end.
std::string to_left(const std::string &s) {
  size_t k = std::min(s.find_first_not_of(' '), s.size());
  return s.substr(k) + std::string(k, ' ');
}

// Walks the format over the data, writing lines.
class Writer {
 public:
  Writer(const std::vector<Datum> &data, std::vector<std::string> &lines) : data_(data), lines_(lines) {}

  // One pass over the format; false when the data ran out before a code
  // needed one.
  bool pass(const std::vector<Item> &items) {
    for (const Item &it : items) {
      if (it.kind == Item::Skip) {  // nX: n blanks
        line_ += std::string(static_cast<size_t>(std::max(it.repeat, 1)), ' ');
        continue;
      }
      for (int r = 0; r < it.repeat; ++r) {
        switch (it.kind) {
          case Item::Text:
          case Item::Skip:
            line_ += it.text;
            break;
          case Item::NewLine:
            flush();
            break;
          case Item::Group:
            if (!pass(it.group)) return false;
            break;
          case Item::Code:
            if (next_ >= data_.size()) return false;
            line_ += it.left ? to_left(apply(it, data_[next_++])) : apply(it, data_[next_++]);
            break;
        }
      }
    }
    return true;
  }
  void flush() {
    lines_.push_back(line_);
    line_.clear();
  }
  bool more() const { return next_ < data_.size(); }
  size_t used() const { return next_; }

 private:
  const std::vector<Datum> &data_;
  std::vector<std::string> &lines_;
  std::string line_;
  size_t next_ = 0;
};

bool has_code(const std::vector<Item> &items) {
  for (const Item &it : items)
    if (it.kind == Item::Code || (it.kind == Item::Group && has_code(it.group))) return true;
  return false;
}

// A C-style format, (%"text") or (%'text'): true with the text inside.
bool c_style_text(const std::string &format, std::string *text) {
  size_t b = format.find_first_not_of(" \t");
  size_t e = format.find_last_not_of(" \t");
  if (b == std::string::npos || format[b] != '(' || format[e] != ')') return false;
  b = format.find_first_not_of(" \t", b + 1);
  e = format.find_last_not_of(" \t", e - 1);
  if (b == std::string::npos || e <= b + 2 || format[b] != '%') return false;
  char quote = format[b + 1];
  if ((quote != '"' && quote != '\'') || format[e] != quote) return false;
  *text = format.substr(b + 2, e - b - 2);
  return true;
}

// Applies a C-style format: the text with each %-code (flags, width,
// precision, then d i o x X f e E g G s) replaced by the next value as
// printf writes it, and %% by %.  Values left over start the text again on
// a new line; it stops at a code no value is left for.
std::vector<std::string> c_style_lines(const std::string &format, const std::string &text,
                                       const std::vector<Datum> &data) {
  std::vector<std::string> lines;
  std::string line;
  size_t next = 0;
  for (;;) {
    size_t before = next;
    bool stopped = false;
    for (size_t i = 0; i < text.size() && !stopped; ++i) {
      if (text[i] != '%') {
        line += text[i];
        continue;
      }
      if (i + 1 < text.size() && text[i + 1] == '%') {
        line += '%';
        ++i;
        continue;
      }
      size_t b = i++;
      while (i < text.size() && std::strchr("-+ 0#", text[i]) && text[i]) ++i;
      for (int part = 0; part < 2; ++part) {  // width, then .precision
        if (part == 1 && (i >= text.size() || text[i] != '.')) break;
        if (part == 1) ++i;
        int n = 0;
        for (; i < text.size() && std::isdigit(static_cast<unsigned char>(text[i])); ++i)
          if ((n = n * 10 + (text[i] - '0')) > 500) bad_format(format, "a field too wide");
      }
      if (i >= text.size()) bad_format(format, "a code without its letter");
      std::string spec = text.substr(b, i - b);
      char conv = text[i];
      if (next >= data.size()) {
        stopped = true;
        break;
      }
      const Datum &d = data[next++];
      char buf[2048];
      switch (conv) {
        case 'd':
        case 'i':
        case 'o':
        case 'x':
        case 'X': {
          long long v = is_integer_type(d.type) ? get_int(d.type, d.data) : std::llround(real_of(d));
          std::snprintf(buf, sizeof buf, (spec + "ll" + conv).c_str(), v);
          break;
        }
        case 'f':
        case 'e':
        case 'E':
        case 'g':
        case 'G':
          std::snprintf(buf, sizeof buf, (spec + conv).c_str(), real_of(d));
          break;
        case 's': {
          std::string t = format_element(d.type, d.sdef, d.data);
          if (d.type != QVA_TYP_STRING) t.erase(0, t.find_first_not_of(' '));  // a number, unpadded
          std::snprintf(buf, sizeof buf, (spec + "s").c_str(), t.c_str());
          break;
        }
        default:
          bad_format(format, std::string("an unknown code '%") + conv + "'");
      }
      line += buf;
    }
    if (stopped || next >= data.size() || next == before) break;
    lines.push_back(line);
    line.clear();
  }
  lines.push_back(line);
  return lines;
}

}  // namespace

std::vector<std::string> format_lines(const std::string &format, const std::vector<QVA_VPTR> &values) {
  std::vector<Datum> data;
  for (QVA_VPTR v : values) {
    View w = view_of(v);
    if (w.type == QVA_TYP_STRUCT) qvahost::raise_error("Format error: structures cannot be formatted.");
    for (QVA_MEMINT i = 0; i < w.n; ++i) data.push_back({w.type, w.sdef, w.data + i * static_cast<QVA_MEMINT>(w.size)});
  }
  std::string c_text;
  if (c_style_text(format, &c_text)) return c_style_lines(format, c_text, data);
  std::vector<Item> items = FormatParser(format).parse();
  if (!data.empty() && !has_code(items)) bad_format(format, "no code takes a value");
  std::vector<std::string> lines;
  Writer out(data, lines);
  for (;;) {
    size_t before = out.used();
    bool complete = out.pass(items);
    // A pass that took no value (codes repeated 0 times) would never end.
    if (!complete || !out.more() || out.used() == before) break;
    out.flush();  // values remain: the format starts again on a new line
  }
  out.flush();
  return lines;
}

}  // namespace qva
