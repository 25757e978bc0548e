// strings.cpp - built-ins about strings and formatting: PRINT, STRING and
// the text functions.
#include <regex.h>

#include <cctype>

#include "builtins.h"
#include "format.h"

namespace qva {

namespace {

// The texts of a string or string array (numbers shown as PRINT shows
// them).
std::vector<std::string> texts_of(QVA_VPTR v) {
  Val s = Val::temp(string_of(v));
  View w = view_of(s.get());
  std::vector<std::string> out;
  for (QVA_MEMINT i = 0; i < w.n; ++i) out.push_back(format_element(QVA_TYP_STRING, nullptr, w.data + i * static_cast<QVA_MEMINT>(w.size)));
  return out;
}

// Applies a text function to a string or to each element of a string array,
// keeping the shape.
QVA_VPTR map_strings(QVA_VPTR v, const std::function<std::string(const std::string &)> &fn) {
  std::vector<std::string> in = texts_of(v);
  if (is_scalar(v)) return qvahost::make_string(fn(in.at(0)));
  for (std::string &t : in) t = fn(t);
  Val out = Val::temp(qvahost::make_string_array(in));
  reshape(out.get(), dims_of(v));
  return out.give_temp();
}

// Applies a function from text to a number to each element, keeping the
// shape: a scalar for a scalar.
QVA_VPTR map_to_numbers(QVA_VPTR v, int type, const std::function<int64_t(const std::string &)> &fn) {
  std::vector<std::string> in = texts_of(v);
  Val out = make_array(type, is_scalar(v) ? Dims{} : dims_of(v));
  char *d = data_of(out.get());
  for (size_t i = 0; i < in.size(); ++i) put_int(type, d + i * elt_size(type), fn(in[i]));
  return out.give_temp();
}

bool is_blank(char c) { return c == ' ' || c == '\t'; }

// STRSPLIT(s [, pattern], /EXTRACT, /REGEX, /PRESERVE_NULL, COUNT=,
// LENGTH=): where the pieces between separators start (or the pieces).
// Without /REGEX the pattern is a set of separator characters (blanks and
// tabs by default).
QVA_VPTR strsplit(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
  auto kw = take_keywords("STRSPLIT", argk, {"EXTRACT", "REGEX", "PRESERVE_NULL", "COUNT", "LENGTH", "FOLD_CASE"});
  if (!is_scalar(argv[0])) qvahost::raise_error("Expression must be a scalar in this context: " + var_name(argv[0]) + ".");
  std::string text = texts_of(argv[0]).at(0);
  std::string pattern = argc > 1 ? texts_of(argv[1]).at(0) : " \t";
  bool keep_empty = keyword_set(kw[2]);
  std::vector<std::pair<size_t, size_t>> pieces;  // start, length
  auto add = [&](size_t b, size_t e) {
    if (e > b || keep_empty) pieces.emplace_back(b, e - b);
  };
  if (keyword_set(kw[1])) {
    // POSIX extended expressions: the C library's matcher does not recurse
    // with the length of the text.
    regex_t re;
    if (regcomp(&re, pattern.c_str(), REG_EXTENDED | (keyword_set(kw[5]) ? REG_ICASE : 0)) != 0)
      qvahost::raise_error("Invalid regular expression '" + pattern + "': " + var_name(argv[1]) + ".");
    size_t at = 0, from = 0;
    regmatch_t m;
    while (from <= text.size() &&
           regexec(&re, text.c_str() + from, 1, &m, from > 0 ? REG_NOTBOL : 0) == 0) {
      auto b = from + static_cast<size_t>(m.rm_so), e = from + static_cast<size_t>(m.rm_eo);
      if (e == b) {  // an empty match separates nothing
        from = b + 1;
        continue;
      }
      add(at, b);
      at = from = e;
    }
    regfree(&re);
    add(at, text.size());
  } else {
    size_t at = 0;
    for (size_t i = 0; i <= text.size(); ++i)
      if (i == text.size() || pattern.find(text[i]) != std::string::npos) {
        add(at, i);
        at = i + 1;
      }
  }
  if (kw[3]) QVA_VarCopy(Val::temp(qvahost::make_long(static_cast<QVA_LONG>(pieces.size()))).get(), kw[3]);
  if (kw[4]) {
    std::vector<QVA_LONG> lens;
    for (auto &p : pieces) lens.push_back(static_cast<QVA_LONG>(p.second));
    Val l = lens.empty() ? Val::temp(qvahost::make_long(0)) : Val::temp(qvahost::make_long_array(lens));
    QVA_VarCopy(l.get(), kw[4]);
  }
  if (keyword_set(kw[0])) {
    if (pieces.empty()) return qvahost::make_string("");
    std::vector<std::string> out;
    for (auto &p : pieces) out.push_back(text.substr(p.first, p.second));
    return qvahost::make_string_array(out);
  }
  if (pieces.empty()) return qvahost::make_long(0);
  std::vector<QVA_LONG> starts;
  for (auto &p : pieces) starts.push_back(static_cast<QVA_LONG>(p.first));
  return qvahost::make_long_array(starts);
}

char fold(char c, bool fold_case) {
  return fold_case ? static_cast<char>(std::tolower(static_cast<unsigned char>(c))) : c;
}

// Whether c matches the class [...] starting at pattern[p] ('[' itself);
// `end` is set past the closing ']'.  A '!' or '^' first negates, a-z is a
// range.  An unclosed '[' is an ordinary character.
bool class_match(const std::string &pat, size_t p, char c, bool fold_case, size_t *end) {
  size_t q = p + 1;
  bool negate = q < pat.size() && (pat[q] == '!' || pat[q] == '^');
  if (negate) ++q;
  bool found = false;
  size_t first = q;
  for (; q < pat.size() && (pat[q] != ']' || q == first); ++q) {
    char lo = fold(pat[q], fold_case), hi = lo;
    if (q + 2 < pat.size() && pat[q + 1] == '-' && pat[q + 2] != ']') {
      hi = fold(pat[q + 2], fold_case);
      q += 2;
    }
    char x = fold(c, fold_case);
    if (x >= lo && x <= hi) found = true;
  }
  if (q >= pat.size()) {  // no closing ']'
    *end = p + 1;
    return c == '[';
  }
  *end = q + 1;
  return found != negate;
}

// STRMATCH's wildcards: * any run, ? any character, [...] a class, \x the
// character x.  A star only ever backs up to the last star, so matching
// takes at most text times pattern steps.
bool wildcard_match(const std::string &pat, const std::string &text, bool fold_case) {
  size_t p = 0, t = 0, star = std::string::npos, star_t = 0;
  while (t < text.size()) {
    size_t next = p + 1;
    bool ok = false;
    if (p < pat.size()) {
      char c = pat[p];
      if (c == '*') {
        star = p++;
        star_t = t;
        continue;
      }
      if (c == '?') ok = true;
      else if (c == '[') ok = class_match(pat, p, text[t], fold_case, &next);
      else if (c == '\\' && p + 1 < pat.size()) {
        ok = fold(pat[p + 1], fold_case) == fold(text[t], fold_case);
        next = p + 2;
      } else ok = fold(c, fold_case) == fold(text[t], fold_case);
    }
    if (ok) {
      p = next;
      ++t;
    } else if (star != std::string::npos) {
      p = star + 1;
      t = ++star_t;
    } else {
      return false;
    }
  }
  while (p < pat.size() && pat[p] == '*') ++p;
  return p == pat.size();
}

// STRCOMPRESS(s [, /REMOVE_ALL]): runs of blanks become one blank, or go.
std::string compress(const std::string &s, bool remove_all) {
  std::string out;
  for (size_t i = 0; i < s.size(); ++i) {
    if (!is_blank(s[i])) {
      out += s[i];
      continue;
    }
    if (!remove_all && (i == 0 || !is_blank(s[i - 1]))) out += ' ';
  }
  return out;
}

// READS, text, v1, v2, ...: numbers (or the rest of a line, for a string
// variable) read from a text into variables, each taking as many values as
// it has elements; an undefined variable takes one FLOAT.
QVA_VPTR reads(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
  take_keywords("READS", argk, {});
  std::string text;
  for (const std::string &t : texts_of(argv[0])) text += t + "\n";
  size_t at = 0;
  auto next_token = [&](bool rest_of_line) -> std::string {
    if (rest_of_line) {
      size_t e = text.find('\n', at);
      std::string t = text.substr(at, e - at);
      at = e + 1;
      return t;
    }
    while (at < text.size() && (is_blank(text[at]) || text[at] == ',' || text[at] == '\n')) ++at;
    if (at >= text.size()) qvahost::raise_error("End of input data encountered: " + var_name(argv[0]) + ".");
    size_t b = at;
    while (at < text.size() && !is_blank(text[at]) && text[at] != ',' && text[at] != '\n') ++at;
    return text.substr(b, at - b);
  };
  for (int i = 1; i < argc; ++i) {
    QVA_VPTR v = argv[i];
    if (v->flags & QVA_V_STRUCT) qvahost::raise_error("Structures cannot be read: " + var_name(v) + ".");
    int type = v->type == QVA_TYP_UNDEF ? QVA_TYP_FLOAT : v->type;
    if (!is_numeric_type(type) && type != QVA_TYP_STRING)
      qvahost::raise_error("Expression must be numeric or a string in this context: " + var_name(v) + ".");
    QVA_MEMINT n = v->type == QVA_TYP_UNDEF ? 1 : qvahost::element_count(v);
    std::vector<std::string> tokens;
    for (QVA_MEMINT k = 0; k < n; ++k) tokens.push_back(next_token(type == QVA_TYP_STRING));
    Val texts = Val::temp(tokens.size() == 1 && is_scalar(v) ? qvahost::make_string(tokens[0])
                                                              : qvahost::make_string_array(tokens));
    Val value = Val::temp(qvahost::convert_value(texts.get(), type));
    if (!is_scalar(v)) reshape(value.get(), dims_of(v));
    QVA_VarCopy(value.get(), v);
  }
  return nullptr;
}

// STRING of bytes: the characters they code (up to a zero byte), one string
// for a scalar or a vector, one a row (the first dimension) for more.
QVA_VPTR text_of_bytes(QVA_VPTR v) {
  View w = view_of(v);
  Dims dims = dims_of(v);
  QVA_MEMINT row = dims.size() > 1 ? dims[0] : w.n;
  std::vector<std::string> rows;
  for (QVA_MEMINT at = 0; at < w.n; at += row) {
    std::string t(w.data + at, static_cast<size_t>(row));
    rows.push_back(t.substr(0, t.find('\0')));
  }
  if (dims.size() <= 1) return qvahost::make_string(rows.at(0));
  Val out = Val::temp(qvahost::make_string_array(rows));
  reshape(out.get(), Dims(dims.begin() + 1, dims.end()));
  return out.give_temp();
}

// The integers of a number or an array of them.
std::vector<QVA_LONG64> integers_of(QVA_VPTR v) {
  Val l = Val::temp(qvahost::convert_value(v, QVA_TYP_LONG64));
  View w = view_of(l.get());
  std::vector<QVA_LONG64> out;
  for (QVA_MEMINT i = 0; i < w.n; ++i) out.push_back(get_int(QVA_TYP_LONG64, w.data + i * 8));
  return out;
}

// STRMID(s, first [, length], /REVERSE_OFFSET): the part of each text from
// `first` (counted from the end with the keyword), `length` characters or
// to the end.  An array of positions or lengths gives one part each, of a
// scalar text or of the text at the same place, in the array's shape.
QVA_VPTR strmid(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
  auto kw = take_keywords("STRMID", argk, {"REVERSE_OFFSET"});
  bool from_end = keyword_set(kw[0]);
  std::vector<std::string> texts = texts_of(argv[0]);
  std::vector<QVA_LONG64> firsts = integers_of(argv[1]);
  std::vector<QVA_LONG64> counts = argc > 2 ? integers_of(argv[2]) : std::vector<QVA_LONG64>{-1};
  QVA_VPTR shape = argv[0];
  size_t n = texts.size();
  for (int k = 1; k < argc; ++k) {
    size_t m = k == 1 ? firsts.size() : counts.size();
    if (is_scalar(argv[k])) continue;
    if (!is_scalar(shape) && m != n)
      qvahost::raise_error("Arrays must have as many elements: " + var_name(argv[k]) + ".");
    if (is_scalar(shape)) shape = argv[k], n = m;
  }
  auto at = [](const auto &v, size_t i) { return v.size() == 1 ? v[0] : v[i]; };
  std::vector<std::string> out;
  for (size_t i = 0; i < n; ++i) {
    const std::string &t = at(texts, i);
    auto len = static_cast<QVA_LONG64>(t.size());
    QVA_LONG64 b = from_end ? len - 1 - at(firsts, i) : at(firsts, i), count = at(counts, i);
    if (b < 0) b = 0;
    if (b >= len || count == 0 || count < -1) out.emplace_back();
    else out.push_back(t.substr(static_cast<size_t>(b), static_cast<size_t>(count < 0 ? len - b : std::min(count, len - b))));
  }
  if (is_scalar(shape)) return qvahost::make_string(out.at(0));
  Val result = Val::temp(qvahost::make_string_array(out));
  reshape(result.get(), dims_of(shape));
  return result.give_temp();
}

// The FORMAT= keyword's text, or "" when none was given.
std::string format_keyword(QVA_VPTR kw) {
  if (!kw || kw->type == QVA_TYP_UNDEF) return "";
  return texts_of(kw).at(0);
}

std::string strtrim(const std::string &s, int mode) {
  size_t b = 0, e = s.size();
  if (mode == 1 || mode == 2)
    while (b < e && (s[b] == ' ' || s[b] == '\t')) ++b;
  if (mode == 0 || mode == 2)
    while (e > b && (s[e - 1] == ' ' || s[e - 1] == '\t')) --e;
  return s.substr(b, e - b);
}

}  // namespace

std::vector<Builtin> string_builtins() {
  return {
      {"PRINT", false, 0, kManyArgs, true,
       [](int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
         auto kw = take_keywords("PRINT", argk, {"FORMAT"});
         std::string format = format_keyword(kw[0]);
         if (!format.empty()) {
           for (const std::string &l : format_lines(format, std::vector<QVA_VPTR>(argv, argv + argc)))
             current_interp().print(l);
           return static_cast<QVA_VPTR>(nullptr);
         }
         for (int i = 0; i < argc; ++i)
           if (argv[i]->type == QVA_TYP_UNDEF)
             qvahost::raise_error("Variable is undefined: " + var_name(argv[i]) + ".");
         for (const std::string &line : printed_lines(std::vector<QVA_VPTR>(argv, argv + argc)))
           current_interp().print(line);
         return static_cast<QVA_VPTR>(nullptr);
       }},
      {"STRING", true, 1, kManyArgs, true,
       [](int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
         auto kw = take_keywords("STRING", argk, {"FORMAT"});
         std::string format = format_keyword(kw[0]);
         if (!format.empty()) {
           auto lines = format_lines(format, std::vector<QVA_VPTR>(argv, argv + argc));
           return lines.size() == 1 ? qvahost::make_string(lines[0]) : qvahost::make_string_array(lines);
         }
         if (argc == 1 && argv[0]->type == QVA_TYP_BYTE && !(argv[0]->flags & QVA_V_STRUCT))
           return text_of_bytes(argv[0]);
         if (argc == 1) {
           QVA_VPTR out = string_of(argv[0]);
           if (!is_scalar(out) && !(argv[0]->flags & QVA_V_STRUCT)) reshape(out, dims_of(argv[0]));
           return out;
         }
         std::string s;
         for (int i = 0; i < argc; ++i) s += format_value(argv[i]);
         return qvahost::make_string(s);
       }},
      {"STRTRIM", true, 1, 2, false,
       [](int argc, QVA_VPTR argv[], QVA_KW_ARGS *) {
         int mode = argc > 1 ? static_cast<int>(scalar_integer(argv[1])) : 0;
         Val s = Val::temp(string_of(argv[0]));
         return map_strings(s.get(), [mode](const std::string &t) { return strtrim(t, mode); });
       }},
      {"STRUPCASE", true, 1, 1, false,
       [](int, QVA_VPTR argv[], QVA_KW_ARGS *) {
         return map_strings(argv[0], [](const std::string &t) { return upper(t); });
       }},
      {"STRLOWCASE", true, 1, 1, false,
       [](int, QVA_VPTR argv[], QVA_KW_ARGS *) {
         return map_strings(argv[0], [](std::string t) {
           for (char &c : t) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
           return t;
         });
       }},
      {"STRLEN", true, 1, 1, false,
       [](int, QVA_VPTR argv[], QVA_KW_ARGS *) {
         return map_to_numbers(argv[0], QVA_TYP_LONG,
                               [](const std::string &t) { return static_cast<int64_t>(t.size()); });
       }},
      {"STRSPLIT", true, 1, 2, true, strsplit},
      {"STRJOIN", true, 1, 2, true,
       [](int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
         take_keywords("STRJOIN", argk, {"SINGLE"});
         std::string sep = argc > 1 ? texts_of(argv[1]).at(0) : "";
         std::string out;
         bool first = true;
         for (const std::string &t : texts_of(argv[0])) {
           out += (first ? "" : sep) + t;
           first = false;
         }
         return qvahost::make_string(out);
       }},
      {"STRPOS", true, 2, 3, true,
       [](int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
         auto kw = take_keywords("STRPOS", argk, {"REVERSE_SEARCH", "REVERSE_OFFSET"});
         std::string sub = texts_of(argv[1]).at(0);
         bool reverse = keyword_set(kw[0]);
         QVA_LONG64 from = argc > 2 ? scalar_integer(argv[2]) : -1;
         return map_to_numbers(argv[0], QVA_TYP_LONG, [&](const std::string &t) -> int64_t {
           auto len = static_cast<QVA_LONG64>(t.size());
           QVA_LONG64 start = from;
           if (start >= 0 && keyword_set(kw[1])) start = len - 1 - start;
           size_t at;
           if (reverse) at = t.rfind(sub, start < 0 ? std::string::npos : static_cast<size_t>(start));
           else at = start > len ? std::string::npos : t.find(sub, start < 0 ? 0 : static_cast<size_t>(start));
           return at == std::string::npos ? -1 : static_cast<int64_t>(at);
         });
       }},
      {"STRMID", true, 2, 3, true, strmid},
      {"STRCOMPRESS", true, 1, 1, true,
       [](int, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
         auto kw = take_keywords("STRCOMPRESS", argk, {"REMOVE_ALL"});
         bool all = keyword_set(kw[0]);
         return map_strings(argv[0], [all](const std::string &t) { return compress(t, all); });
       }},
      // STRCMP(a, b [, n], /FOLD_CASE): 1 where the texts (their first n
      // characters) are equal.
      {"STRCMP", true, 2, 3, true,
       [](int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
         auto kw = take_keywords("STRCMP", argk, {"FOLD_CASE"});
         bool fold = keyword_set(kw[0]);
         QVA_LONG64 n = argc > 2 ? scalar_integer(argv[2]) : -1;
         std::string other = texts_of(argv[1]).at(0);
         auto cut = [&](std::string t) {
           if (n >= 0 && t.size() > static_cast<size_t>(n)) t.resize(static_cast<size_t>(n));
           return fold ? upper(t) : t;
         };
         std::string want = cut(other);
         return map_to_numbers(argv[0], QVA_TYP_BYTE, [&](const std::string &t) -> int64_t { return cut(t) == want; });
       }},
      {"STRMATCH", true, 2, 2, true,
       [](int, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
         auto kw = take_keywords("STRMATCH", argk, {"FOLD_CASE"});
         std::string pattern = texts_of(argv[1]).at(0);
         bool fold_case = keyword_set(kw[0]);
         return map_to_numbers(argv[0], QVA_TYP_BYTE, [&](const std::string &t) -> int64_t {
           return wildcard_match(pattern, t, fold_case) ? 1 : 0;
         });
       }},
      {"READS", false, 2, kManyArgs, true, reads},
  };
}

}  // namespace qva
