// lexer.cpp - tokens of QVA source text.
#include "lexer.h"

#include <qva/qva.h>

#include <cctype>
#include <cstdlib>

namespace qva {
namespace {

bool ident_start(char c) { return std::isalpha(static_cast<unsigned char>(c)) || c == '_'; }
bool ident_char(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '$';
}

std::string upper(std::string s) {
  for (char &c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return s;
}

class Lexer {
 public:
  Lexer(const std::string &src, int line) : s_(src), line_(line) {}
  // Whether the text ends in a '$' that joins it to what follows.
  bool joins_at_end() const { return joins_at_end_; }

  std::vector<Token> run() {
    bool line_start = true;
    while (pos_ < s_.size()) {
      char c = s_[pos_];
      if (c == '\n') {
        push(Tok::Newline, "\n");
        ++line_;
        ++pos_;
        line_start = true;
        continue;
      }
      if (c == ' ' || c == '\t' || c == '\r') {
        ++pos_;
        continue;
      }
      if (c == ';') {
        skip_comment();
        continue;
      }
      if (c == '$' && continuation()) continue;
      if (line_start && c == '.' && pos_ + 1 < s_.size() && ident_start(s_[pos_ + 1])) {
        exec_command();
        continue;
      }
      line_start = false;
      if (ident_start(c)) {
        size_t b = pos_;
        while (pos_ < s_.size() && ident_char(s_[pos_])) ++pos_;
        push(Tok::Ident, upper(s_.substr(b, pos_ - b)));
        out_.back().spelling = s_.substr(b, pos_ - b);
      } else if (c == '!' && pos_ + 1 < s_.size() && ident_start(s_[pos_ + 1])) {
        size_t b = ++pos_;
        while (pos_ < s_.size() && ident_char(s_[pos_])) ++pos_;
        push(Tok::SysVar, upper(s_.substr(b, pos_ - b)));
      } else if (std::isdigit(static_cast<unsigned char>(c)) ||
                 (c == '.' && pos_ + 1 < s_.size() &&
                  std::isdigit(static_cast<unsigned char>(s_[pos_ + 1])))) {
        number();
      } else if (c == '\'' || c == '"') {
        string(c);
      } else {
        op();
      }
    }
    push(Tok::Newline, "\n");
    push(Tok::End, "");
    return std::move(out_);
  }

 private:
  void push(Tok k, std::string text) {
    Token t;
    t.kind = k;
    t.text = std::move(text);
    t.line = line_;
    out_.push_back(std::move(t));
  }

  void skip_comment() {
    while (pos_ < s_.size() && s_[pos_] != '\n') ++pos_;
  }

  // '$' followed by blanks or a comment up to the line end joins the lines.
  bool continuation() {
    size_t p = pos_ + 1;
    while (p < s_.size() && (s_[p] == ' ' || s_[p] == '\t' || s_[p] == '\r')) ++p;
    if (p < s_.size() && s_[p] == ';')
      while (p < s_.size() && s_[p] != '\n') ++p;
    if (p < s_.size() && s_[p] != '\n') return false;
    joins_at_end_ = p >= s_.size();
    pos_ = p < s_.size() ? p + 1 : p;
    ++line_;
    return true;
  }

  void exec_command() {
    size_t b = pos_;
    while (pos_ < s_.size() && s_[pos_] != '\n') ++pos_;
    std::string text = s_.substr(b, pos_ - b);
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) text.pop_back();
    push(Tok::Exec, text);
  }

  void number() {
    size_t b = pos_;
    bool real = false, dbl = false;
    while (pos_ < s_.size() && std::isdigit(static_cast<unsigned char>(s_[pos_]))) ++pos_;
    // A '.' belongs to the number unless an operator word follows (1.EQ).
    if (pos_ < s_.size() && s_[pos_] == '.' &&
        !(pos_ + 2 < s_.size() && std::isalpha(static_cast<unsigned char>(s_[pos_ + 1])) &&
          std::isalpha(static_cast<unsigned char>(s_[pos_ + 2])))) {
      real = true;
      ++pos_;
      while (pos_ < s_.size() && std::isdigit(static_cast<unsigned char>(s_[pos_]))) ++pos_;
    }
    std::string digits = s_.substr(b, pos_ - b);
    if (pos_ < s_.size() && (s_[pos_] == 'e' || s_[pos_] == 'E' || s_[pos_] == 'd' ||
                             s_[pos_] == 'D')) {
      size_t p = pos_ + 1;
      if (p < s_.size() && (s_[p] == '+' || s_[p] == '-')) ++p;
      if (p < s_.size() && std::isdigit(static_cast<unsigned char>(s_[p]))) {
        while (p < s_.size() && std::isdigit(static_cast<unsigned char>(s_[p]))) ++p;
        digits += 'e' + s_.substr(pos_ + 1, p - pos_ - 1);
        dbl = s_[pos_] == 'd' || s_[pos_] == 'D';
        pos_ = p;
        real = true;
      } else if (p == pos_ + 1 && (s_[pos_] == 'd' || s_[pos_] == 'D') &&
                 (p >= s_.size() || !ident_char(s_[p]))) {
        ++pos_;  // 1d, 1.5D: a DOUBLE
        real = dbl = true;
      }
    }
    if (real) {
      // 1.5 and 1e3 are FLOAT; a D exponent (1.5d, 1d3) makes a DOUBLE.
      push(Tok::Real, digits);
      out_.back().dval = std::strtod(digits.c_str(), nullptr);
      out_.back().int_type = dbl ? QVA_TYP_DOUBLE : QVA_TYP_FLOAT;
      return;
    }
    int type = QVA_TYP_LONG;
    std::string suffix;
    while (pos_ < s_.size() && std::isalpha(static_cast<unsigned char>(s_[pos_])))
      suffix += static_cast<char>(std::toupper(static_cast<unsigned char>(s_[pos_++])));
    if (suffix == "B") type = QVA_TYP_BYTE;
    else if (suffix == "S") type = QVA_TYP_INT;
    else if (suffix == "L" || suffix.empty()) type = QVA_TYP_LONG;
    else if (suffix == "LL") type = QVA_TYP_LONG64;
    else throw SyntaxError("Syntax error: bad number suffix '" + suffix + "'.", line_);
    errno = 0;
    unsigned long long v = std::strtoull(digits.c_str(), nullptr, 10);
    if (errno == ERANGE || v > static_cast<unsigned long long>(INT64_MAX))
      throw SyntaxError("Syntax error: integer constant too large: " + digits + ".", line_);
    bool fits = type == QVA_TYP_BYTE ? v <= 255 : type == QVA_TYP_INT ? v <= 32767
              : type == QVA_TYP_LONG ? v <= 2147483647ull : true;
    if (!fits) {
      if (suffix.empty()) type = QVA_TYP_LONG64;  // a plain constant too large for LONG
      else throw SyntaxError("Syntax error: integer constant out of range: " + digits + ".", line_);
    }
    push(Tok::Integer, digits);
    out_.back().ival = static_cast<int64_t>(v);
    out_.back().int_type = type;
  }

  void string(char q) {
    std::string text;
    ++pos_;
    for (;;) {
      if (pos_ >= s_.size() || s_[pos_] == '\n')
        throw SyntaxError("Syntax error: unterminated string.", line_);
      char c = s_[pos_++];
      if (c == q) {
        if (pos_ < s_.size() && s_[pos_] == q) {
          text += q;
          ++pos_;
          continue;
        }
        break;
      }
      text += c;
    }
    push(Tok::String, text);
  }

  void op() {
    static const char *const kOps[] = {"->", "::", "&&", "||", "++", "--", "+=", "-=", "*=", "/=", "+", "-",
                                       "*",  "/",  "^",  "=",  "(",  ")",  "[",  "]",  "{", "}",
                                       ",",  ":",  ".",  "~",  "&",  "?",  "<",  ">"};
    for (const char *o : kOps) {
      size_t n = std::char_traits<char>::length(o);
      if (s_.compare(pos_, n, o) == 0) {
        pos_ += n;
        push(std::string(o) == "&" ? Tok::Amp : Tok::Op, o);
        return;
      }
    }
    throw SyntaxError(std::string("Syntax error: unexpected character '") + s_[pos_] + "'.", line_);
  }

  const std::string &s_;
  size_t pos_ = 0;
  int line_;
  std::vector<Token> out_;
  bool joins_at_end_ = false;
};

}  // namespace

std::vector<Token> tokenize(const std::string &source, int first_line) {
  return Lexer(source, first_line).run();
}

std::vector<Token> tokenize_line(const std::string &line, int line_no, bool *continues) {
  Lexer lexer(line, line_no);
  std::vector<Token> out = lexer.run();
  *continues = lexer.joins_at_end();
  return out;
}

}  // namespace qva
