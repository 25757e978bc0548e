// values.h - the evaluator's hold on host variables, and what it does with
// them: arithmetic, comparison, truth, and the text PRINT shows.
//
// Every value is a host variable: a temporary the evaluator owns or a
// variable (main-level, local, heap) it borrows.  Module routines receive
// exactly these.
#pragma once

#include <qva/qva.h>

#include <string>
#include <vector>

namespace qva {

class Val {
 public:
  Val() = default;
  static Val temp(QVA_VPTR t) { return Val(t, true); }   // takes the temporary
  static Val ref(QVA_VPTR v) { return Val(v, false); }   // borrows the variable
  ~Val() { reset(); }
  Val(Val &&o) noexcept : v_(o.v_), owned_(o.owned_) { o.v_ = nullptr; }
  Val &operator=(Val &&o) noexcept;
  Val(const Val &) = delete;
  Val &operator=(const Val &) = delete;

  QVA_VPTR get() const { return v_; }
  QVA_VPTR operator->() const { return v_; }
  explicit operator bool() const { return v_ != nullptr; }
  bool owned() const { return owned_; }
  // A temporary holding the value, given to the caller: an owned one is
  // handed over, a borrowed one copied.
  QVA_VPTR give_temp();
  void reset();

 private:
  Val(QVA_VPTR v, bool owned) : v_(v), owned_(owned) {}
  QVA_VPTR v_ = nullptr;
  bool owned_ = false;
};

// A new temporary holding a copy of v.
Val copy_of(QVA_VPTR v);
Val undefined_value();

bool is_scalar(QVA_VPTR v);

// The value of an IF/WHILE test: integers are true when odd, reals when
// not zero, strings when not empty, references when not null.  Must be a
// scalar.
bool truth(QVA_VPTR v);
// Not zero / not empty / not null (for ~, && and ||, and KEYWORD_SET).
bool nonzero(QVA_VPTR v);

// Binary operators: + - * / MOD ^ < > EQ NE LT LE GT GE AND OR XOR.
Val binary_op(const std::string &op, QVA_VPTR a, QVA_VPTR b);
// Unary operators: - NOT ~.
Val unary_op(const std::string &op, QVA_VPTR a);

// The text PRINT shows for a value (numbers in their type's width; an
// array of two or more dimensions one row a line).
std::string format_value(QVA_VPTR v);
// The lines PRINT shows for its values: as format_value shows each, one
// after the other, a number that would take a line past kPrintWidth
// columns starting the next line.
constexpr size_t kPrintWidth = 80;
std::vector<std::string> printed_lines(const std::vector<QVA_VPTR> &values);
// The text of one element, as PRINT shows it.
std::string format_element(int type, QVA_SDEF sdef, const void *data);

}  // namespace qva
