// strings.cpp - built-ins about strings and formatting: PRINT, STRING and
// the text functions.
#include <cctype>

#include "builtins.h"

namespace qva {

namespace {

// Applies a text function to a string or to each element of a string array
// (numbers are first shown as PRINT shows them).
QVA_VPTR map_strings(QVA_VPTR v, const std::function<std::string(const std::string &)> &fn) {
  Val s = Val::temp(qvahost::convert_value(v, QVA_TYP_STRING));
  if (is_scalar(s.get())) return qvahost::make_string(fn(qvahost::string_value(s.get())));
  QVA_MEMINT n = qvahost::element_count(s.get());
  std::vector<std::string> out;
  for (QVA_MEMINT i = 0; i < n; ++i) {
    Val e = Val::temp(qvahost::element_values(s.get(), {i}, true));
    out.push_back(fn(qvahost::string_value(e.get())));
  }
  return qvahost::make_string_array(out);
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
         take_keywords("PRINT", argk, {});
         std::string line;
         for (int i = 0; i < argc; ++i) {
           if (argv[i]->type == QVA_TYP_UNDEF)
             qvahost::raise_error("Variable is undefined: " + var_name(argv[i]) + ".");
           line += format_value(argv[i]);
         }
         current_interp().print(line);
         return static_cast<QVA_VPTR>(nullptr);
       }},
      {"STRING", true, 1, kManyArgs, false,
       [](int argc, QVA_VPTR argv[], QVA_KW_ARGS *) {
         if (argc == 1) return string_of(argv[0]);
         std::string s;
         for (int i = 0; i < argc; ++i) s += format_value(argv[i]);
         return qvahost::make_string(s);
       }},
      {"STRTRIM", true, 1, 2, false,
       [](int argc, QVA_VPTR argv[], QVA_KW_ARGS *) {
         int mode = argc > 1 ? static_cast<int>(qvahost::integer_value(argv[1])) : 0;
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
         Val s = Val::temp(string_of(argv[0]));
         if (!is_scalar(s.get())) qvahost::raise_error("STRLEN takes a scalar.");
         return qvahost::make_long(static_cast<QVA_LONG>(qvahost::string_value(s.get()).size()));
       }},
  };
}

}  // namespace qva
