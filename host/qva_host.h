// qva_host.h - the host runtime's own interface, for the front end and tests.
//
// Modules never include this; they see only <qva/qva.h>.  Everything here
// drives the runtime from outside: calling routines as the language does,
// loading modules, resetting the session, and the accounting that every
// test ends with.
#pragma once

#include <qva/qva.h>

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

namespace qvahost {

// ---------------------------------------------------------------- errors

// Thrown when a routine is abandoned (message action QVA_MSG_LONGJMP).  The
// host catches it only where it called the routine from outside (call(),
// try_call(), the front end's statement loop).
struct HostError {
  int code = 0;          // host message code, or a block's code
  std::string routine;   // the routine that was running, upper case ("" at top level)
  std::string text;      // the message text
  // "% ROUTINE: text", as the host reports it.
  std::string report() const;
};

// Raises a HostError attributed to the routine now running (as the host's
// own errors are): for front ends that find errors in the language.
[[noreturn]] void raise_error(const std::string &text, int code = QVA_M_GENERIC);
// The routine now running, upper case ("" at top level).
std::string running_routine();
// How an error names a value: the variable's name, else its place among the
// running routine's arguments ("argument 2", a keyword's name, "SELF"),
// else "<Expression>".
std::string argument_label(QVA_VPTR v);
// Raises the host's "nested too deeply" error when this thread's C stack is
// nearly used up: for front ends that recurse on their input (a parser, an
// evaluator).  Every routine call makes the same check.
void check_stack();

// Where the host prints messages and reports; defaults to standard error.
void set_output(std::function<void(const std::string &line)> sink);
void emit(const std::string &line);

// ------------------------------------------------------------- accounting

struct Accounting {
  int64_t temporaries = 0;   // live temporaries
  int64_t heap_vars = 0;     // live heap variables (objects included)
  int64_t objects = 0;       // live objects
  int64_t allocations = 0;   // live QVA_MemAlloc* blocks
  int64_t texts = 0;         // live string texts
  int64_t violations = 0;    // contract violations reported so far
  bool operator==(const Accounting &) const = default;
};
Accounting accounting();
std::string to_string(const Accounting &a);

// Reports a misuse of the host interface (a non-temporary given to
// QVA_Deltmp, a block freed twice, a released text read): printed loudly
// and counted in Accounting::violations.
void contract_violation(const std::string &what);

// Makes the n-th host allocation from now fail (1: the next one); 0 turns
// the hook off.  Counts QVA_MemAlloc*, array and structure data, heap
// variables and texts.
void fail_allocation_after(int64_t n);
// Allocations made since the hook was last set (for sweeping n).
int64_t allocations_since_hook();

// -------------------------------------------------------------- variables

// Builders of temporaries for callers outside the runtime.
// The array descriptor of a structure value.  A heap variable keeps one
// small structure element in its record without one; a descriptor is made
// for it the first time it is asked for (raises when memory runs out).
QVA_ARRAY *struct_array(QVA_VPTR v);

QVA_VPTR make_long(QVA_LONG v);
QVA_VPTR make_long64(QVA_LONG64 v);
QVA_VPTR make_double(double v);
QVA_VPTR make_byte(QVA_UCHAR v);
QVA_VPTR make_string(const std::string &s);
QVA_VPTR make_objref(QVA_HVID h);
QVA_VPTR make_ptr(QVA_HVID h);
QVA_VPTR make_long_array(const std::vector<QVA_LONG> &v);
QVA_VPTR make_string_array(const std::vector<std::string> &v);

// The language's name of a type code: "LONG", "STRING", "OBJREF"...
const char *type_name(int type);

// Readers; they refuse (throw HostError) a variable of another type.
std::string string_value(QVA_VPTR v);
QVA_LONG64 integer_value(QVA_VPTR v);   // BYTE, INT, LONG, LONG64
double double_value(QVA_VPTR v);        // any numeric type

// A named variable that is not a temporary, owned by the caller; its value
// is freed when it goes away.
class Variable {
 public:
  explicit Variable(const char *name = nullptr);
  ~Variable();
  Variable(const Variable &) = delete;
  Variable &operator=(const Variable &) = delete;
  QVA_VPTR get() { return &var_; }
  QVA_VPTR operator->() { return &var_; }
  // Takes the value of a temporary and releases the temporary.
  void take(QVA_VPTR tmp);
 private:
  QVA_VARIABLE var_{};
};

// --------------------------------------------------------------- routines

// Keywords of one call, in the order given; names may be abbreviated.
struct Keyword {
  std::string name;
  QVA_VPTR value;
};
using Keywords = std::vector<Keyword>;

// Calls a registered routine as the language calls it.  Positional
// arguments are the caller's variables (temporaries stay the caller's to
// release).  A function's result is a new temporary; a procedure gives
// NULL.  On an error, temporaries made during the call are released and
// the HostError is thrown on to the caller.
QVA_VPTR call_function(const std::string &name, std::vector<QVA_VPTR> args = {},
                       const Keywords &kw = {});
void call_procedure(const std::string &name, std::vector<QVA_VPTR> args = {},
                    const Keywords &kw = {});
// A method call obj->METHOD, resolved through the object's class chain.
// The arguments are taken as they are, not copied (a call per message
// sent should not allocate).
QVA_VPTR call_method_function(QVA_VPTR obj, const std::string &method,
                              const std::vector<QVA_VPTR> &args = {}, const Keywords &kw = {});
void call_method_procedure(QVA_VPTR obj, const std::string &method,
                           const std::vector<QVA_VPTR> &args = {}, const Keywords &kw = {});

// OBJ_NEW(cls, args..., keywords): an object reference temporary, the null
// reference when the class's INIT gave 0.
QVA_VPTR new_object(const std::string &cls, std::vector<QVA_VPTR> args = {},
                    const Keywords &kw = {});

// Runs `body`, catching a HostError: on error the report is emitted and
// returned; on success the result is empty.
std::string try_call(const std::function<void()> &body);

// A routine defined after start-up by the front end or a test.  `body`
// receives the positional arguments and the keywords as given.
using UserRoutine = std::function<QVA_VPTR(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk)>;
void define_routine(const std::string &name, bool is_function, int arg_min, int arg_max,
                    bool keywords, UserRoutine body);
bool routine_exists(const std::string &name, bool is_function);

// Asked for a routine that is not registered, before the call fails: a front
// end may then compile it from a file and define it.  It receives the
// upper-case name (NAME__DEFINE for the definition of class NAME) and returns
// true when it defined something; the look-up is then made again.
using RoutineLoader = std::function<bool(const std::string &name, bool is_function)>;
void set_routine_loader(RoutineLoader loader);

// Keywords of a QVA_KW_ARGS block as given (for user routines).
Keywords keywords_of(QVA_KW_ARGS *argk);

// Registered routine names of one kind, in the host's order.
std::vector<std::string> routine_names(bool is_function);
struct RoutineInfo {
  std::string name;
  int arg_min, arg_max;
  uint32_t flags;
};
std::vector<RoutineInfo> routine_rows(bool is_function);

// Traces calls of the routines whose names match one of `patterns`
// (case-insensitive shell patterns: `*` any text, `?` one character,
// `[...]` a set): each call is emitted, before its body runs, as
//   % [depth] NAME object: arguments, KEYWORD=value
// indented two spaces per level of traced calls running.  No patterns turn
// the trace off.
void set_trace(const std::vector<std::string> &patterns);
std::vector<std::string> trace_patterns();  // upper case; empty when off
// A value as the trace shows it: 7, 2.5D, 'text', LONG[3], {NAME},
// <ObjHeapVar3(CLASS)>, <Undefined>.
std::string short_value(const QVA_VARIABLE *v);

// ----------------------------------------------------------------- classes

// Defines a named structure; `base` (may be empty) is inherited first.
struct FieldSpec {
  std::string name;
  int type;                     // QVA_TYP_*; QVA_TYP_STRUCT needs `sdef`
  QVA_SDEF sdef = nullptr;
  std::vector<QVA_MEMINT> dims; // empty: scalar
};
QVA_SDEF define_struct(const std::string &name, const std::string &base,
                       const std::vector<FieldSpec> &fields);
QVA_SDEF find_struct(const std::string &name);
std::string struct_name(QVA_SDEF sdef);
// Field names of a definition, inherited ones first, with byte offsets.
std::vector<std::pair<std::string, QVA_MEMINT>> struct_fields(QVA_SDEF sdef);
QVA_MEMINT struct_length(QVA_SDEF sdef);
QVA_SDEF struct_super(QVA_SDEF sdef);
// Whether a heap variable holds a module's own record (a hidden structure:
// a node of the module's heap trees), which only the module may change.
bool is_module_record(QVA_HVPTR hv);

// The methods an object of class `cls` answers: for each name and kind, the
// definition a call resolves to (the one nearest `cls` up its chain).  The
// class's own first, then each superclass's; by name within a class.
struct MethodInfo {
  std::string name;      // METHOD, upper case
  std::string cls;       // the class that defines it
  bool is_function = false;
  bool native = false;   // registered by a module, not written in QVA
};
std::vector<MethodInfo> class_methods(QVA_SDEF cls);

// ------------------------------------------------------ elements, fields

// A structure field as a front end sees it: its type, its structure
// definition (QVA_TYP_STRUCT), its dimensions (empty: scalar) and its byte
// offset in an element.
struct FieldInfo {
  std::string name;  // upper case
  int type = 0;
  QVA_SDEF sdef = nullptr;
  std::vector<QVA_MEMINT> dims;
  QVA_MEMINT offset = 0;
};
std::vector<FieldInfo> struct_field_info(QVA_SDEF sdef);

// Element count of a value: 1 for a scalar, 0 for an undefined variable.
QVA_MEMINT element_count(QVA_VPTR v);
// A new temporary holding copies of the elements of `v` at `indices`
// (0-based).  With scalar_if_one and one index, a scalar (a structure stays
// a one-element structure); otherwise a one-dimensional array.  An index out
// of range raises a HostError.
QVA_VPTR element_values(QVA_VPTR v, const std::vector<QVA_MEMINT> &indices, bool scalar_if_one);
// Stores `value` at `indices` of `v`, converted to v's type: a
// one-element value goes to every index, otherwise the element counts must
// agree.  Structures must be of the same definition.
void store_elements(QVA_VPTR v, const std::vector<QVA_MEMINT> &indices, QVA_VPTR value);
// A new temporary holding a copy of field `tag` of element `elt` of the
// structure held by `sv` (an array field comes back as a one-dimensional
// array).
QVA_VPTR field_value(QVA_VPTR sv, QVA_MEMINT elt, const std::string &tag);
// Stores `value`, converted to the field's type, in field `tag` of element
// `elt`; a one-element value fills every element of an array field.
void store_field(QVA_VPTR sv, QVA_MEMINT elt, const std::string &tag, QVA_VPTR value);
// A new temporary: `v` converted element by element to a number or string
// type, keeping its shape.
QVA_VPTR convert_value(QVA_VPTR v, int type);

// Runs `body` as a call from outside: on a HostError, the temporaries and
// keyword conversions made since it started are released, and the error
// goes on.  For front ends that call QVA_* operations (QVA_ObjNew, ...)
// which may run routines.
void guarded(const std::function<void()> &body);

// -------------------------------------------------------- module loading

// Loads a module from its entry points (a module linked into the program)
// or from a shared object.  Returns QVA_Load's result; 0 also when the
// file cannot be loaded or the module was loaded already.
int load_module(int (*load)(), void (*reset)());
int load_module_file(const std::string &path, std::string *error = nullptr);

// ----------------------------------------------------------------- session

// Discards every main-level variable, heap variable and object (without
// CLEANUP), then calls every loaded module's QVA_ResetSession.  Definitions
// and routines stay.
void reset_session();
// All live heap identifiers, ascending.
std::vector<QVA_HVID> heap_ids();

// Main-level variables: the session's named variables.
QVA_VPTR main_variable(const std::string &name);       // found or made (undefined)
QVA_VPTR find_main_variable(const std::string &name);  // nullptr when none
std::vector<std::string> main_variable_names();         // sorted
void delete_main_variable(const std::string &name);

// Saving and restoring.  A save file holds named variables, every heap
// variable they reach (through pointers and object references, at any
// depth), and the structure definitions those values need.
// save_variables writes the named main-level variables; save_all writes
// every main-level variable and every heap variable.
void save_variables(const std::string &path, const std::vector<std::string> &names);
void save_all(const std::string &path);
std::vector<uint8_t> save_variables_to_bytes(const std::vector<std::string> &names);
std::vector<uint8_t> save_all_to_bytes();
// Restores into the running session: every heap variable comes back as a
// new one and every reference is remapped; variables of the same name are
// replaced.  A bad file raises a HostError and changes nothing.  Returns the
// names of the variables restored.
std::vector<std::string> restore(const std::string &path);
std::vector<std::string> restore_from_bytes(const uint8_t *data, size_t size,
                                            bool verify_checksum = true);

// Heap garbage collection: destroys objects (running CLEANUP) and frees
// pointer heap variables that no main-level variable reaches, keeping those
// flagged QVA_HV_HELD and what they reach.  Extra roots (variables of
// running procedures) come from the root hook.  Returns how many went.
size_t heap_gc();
using RootVisitor = std::function<void(QVA_VPTR)>;
void set_gc_root_hook(std::function<void(const RootVisitor &)> hook);

}  // namespace qvahost
