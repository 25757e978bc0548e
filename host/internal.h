// internal.h - state and helpers shared by the host runtime's own files.
//
// Ownership of this header's pieces, by file:
//   memory.cpp     allocator, failing-allocation hook, accounting counters
//   messages.cpp   HostError raising, message formats, blocks, output sink,
//                  the routine call stack used to name errors
//   nesting.cpp    the limit on nested routine calls and the C stack guard
//   strings.cpp    text table behind QVA_STRING, QVA_Str*
//   variables.cpp  temporaries, value copy/free, conversion, arrays, QVA_Var*
//   structs.cpp    structure definitions, layout, tag look-up
//   heap.cpp       heap table, QVA_HeapVar*, session reset of the heap
//   idents.cpp     QVA_IdentHash, QVA_IdentName
//   objects.cpp    classes and methods, QVA_Obj*
//   routines.cpp   routine registry, calls, QVA_SysRtnAdd, InterpCall, loading
//   keywords.cpp   QVA_KW_ARGS, QVA_KWProcessByOffset, QVA_KWFree
#pragma once

#include <qva/qva.h>

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <new>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "qva_host.h"

namespace qvahost {
struct Routine;
}  // namespace qvahost

namespace qvahost {

// ------------------------------------------------------------- accounting
// Live counters, updated by the file that owns each resource.
struct Counters {
  int64_t temporaries = 0;
  int64_t heap_vars = 0;
  int64_t objects = 0;
  int64_t allocations = 0;
  int64_t texts = 0;
  int64_t violations = 0;
};
Counters &counters();

// True when the failing-allocation hook says this allocation must fail.
// Every allocation point of the host calls it exactly once.
bool allocation_fails();

// Raw memory for host records (not counted as QVA_MemAlloc blocks, but
// subject to the failing-allocation hook when `hooked`).  Returns nullptr on
// failure; never throws.
void *raw_alloc(size_t size, bool hooked);
void raw_free(void *p);

// ---------------------------------------------------------------- errors

// Raises a HostError attributed to the routine now running.
[[noreturn]] void raise(int code, const std::string &text);
[[noreturn]] void raise_fmt(int code, const char *fmt, ...);
// Reports without abandoning (action QVA_MSG_RET / QVA_MSG_INFO).
void report(int code, const std::string &text, int action);
// Raises or reports according to `action`.
void message(int code, int action, const std::string &text);
std::string vformat(const char *fmt, va_list ap);
// Raises M_NOMEM for a failed allocation that has no label of its own.
[[noreturn]] void raise_out_of_memory();
// Runs `body`, turning a std::bad_alloc (a standard container running out
// of memory, in the host, a module or a front end) into the host's
// allocation error, so that it abandons the routine like any other error.
template <class F>
auto allocation_errors_raised(F &&body) {
  try {
    return body();
  } catch (const std::bad_alloc &) {
    raise_out_of_memory();
  }
}
std::string format(const char *fmt, ...);

// Host error codes used by the runtime itself (texts in messages.cpp).
enum : int {
  M_GENERIC = QVA_M_GENERIC,
  M_WRONG_TYPE = QVA_M_WRONG_TYPE,
  M_NOT_OF_CLASS = QVA_M_NOT_OF_CLASS,
  M_OBJREF_REQUIRED = QVA_M_OBJREF_REQUIRED,
  M_NOMEM = -100,            // "Unable to allocate memory: to make %s."
  M_WRONG_ARG_COUNT = -101,  // "Incorrect number of arguments."
  M_KW_NOT_ALLOWED = -102,   // "Keyword parameters not allowed in call."
  M_KW_UNKNOWN = -103,       // "Keyword %s not allowed in call to: %s"
  M_KW_AMBIGUOUS = -104,     // "Ambiguous keyword abbreviation: %s."
  M_UNDEF_PROC = -105,       // "Attempt to call undefined procedure: '%s'."
  M_UNDEF_FUNC = -106,       // "Variable is undefined / undefined function: '%s'."
  M_UNDEF_METHOD = -107,     // "Attempt to call undefined method: '%s'."
  M_INVALID_OBJ = -108,      // "Invalid object reference: <ObjHeapVar%u>."
  M_INVALID_PTR = -109,      // "Invalid pointer: <PtrHeapVar%u>."
  M_REQSTR = -110,           // "String expression required in this context: %s."
  M_REQPTR = -111,           // "Pointer type required in this context: %s."
  M_REQOBJREF = -112,        // "Object reference type required in this context: %s."
  M_NOTSCALAR = -113,        // "Expression must be a scalar in this context: %s."
  M_UNDEFVAR = -114,         // "Variable is undefined: %s."
  M_CONVERSION = -115,       // "Type conversion error: Unable to convert given %s to %s."
  M_STRUCT_CONFLICT = -116,  // "Conflicting data structures: %s."
  M_STRUCT_UNKNOWN = -117,   // "Structure type not defined: %s."
  M_NO_TAG = -118,           // "Tag name %s is undefined for structure %s."
  M_BAD_IDENT = -119,        // "Invalid identifier: '%s'."
  M_CLASS_UNKNOWN = -120,    // "Class not defined: %s."
  M_BAD_DIMS = -121,         // "Array dimensions must be greater than 0."
  M_HEAP_FULL = -122,        // "Heap identifiers exhausted."
  M_BAD_ARG = -123,          // "%s" (a runtime refusal with its own text)
  M_NESTING = -124,          // "Routine calls nested too deeply (more than %zu)."
};

// The routine call stack, used to name the routine an error abandons and
// the argument at fault: each call's name and the arguments it was given
// (`first_arg` is 1 for a method, whose argv[0] is the object).
struct RunningCall {
  const std::string *name;
  int argc;
  QVA_VPTR *argv;
  QVA_KW_ARGS *argk;
  int first_arg;
};
// The stack itself (messages.cpp).  Every routine call pushes and pops, so
// both are inline, and the fields come one by one: a record built on the
// caller's stack would be read back before its stores land.
extern std::vector<RunningCall> g_routine_stack;
inline void push_routine(const std::string *name, int argc, QVA_VPTR *argv, QVA_KW_ARGS *argk,
                         int first_arg) {
  g_routine_stack.push_back(RunningCall{name, argc, argv, argk, first_arg});
}
inline void push_routine(const RunningCall &call) {
  push_routine(call.name, call.argc, call.argv, call.argk, call.first_arg);
}
// Reports a pop with no routine running (a contract violation).
void pop_routine_unbalanced();
inline void pop_routine() {
  if (g_routine_stack.empty()) [[unlikely]]
    return pop_routine_unbalanced();
  g_routine_stack.pop_back();
}
const std::string &current_routine();  // "" at top level
size_t routine_depth();                // routines running
// How an error names an unnamed value given to the routine now running:
// "argument N" (counted as the caller wrote them), "SELF" for a method's
// object, the keyword's name for a keyword's value; "" when it is none of
// the call's arguments.
std::string running_argument_label(const QVA_VARIABLE *v);

// (nesting.cpp) Raises M_NESTING when more routines are running than the
// limit allows, or when this thread's C stack is nearly used up.  Called
// on entry to every routine.
void check_nesting();

// ------------------------------------------------------------------ texts
// The text table behind QVA_STRING::s.  References are never 0 for a live
// text; a released reference is detected when read again.
uint32_t text_new(const char *s, size_t len);  // nullptr-safe; 0 when len == 0
void text_release(uint32_t ref);
const char *text_get(uint32_t ref);  // "" for 0; violation when stale
// Sets *out to an owned copy of [s, s+len).
void string_set(QVA_STRING *out, const char *s, size_t len);

// --------------------------------------------------------------- variables
// Temporaries come from a pool; each records the serial number of its
// creation so that an abandoned call can release everything it made.
QVA_VPTR tmp_new();
bool is_pool_temp(QVA_VPTR v);
uint64_t tmp_mark();                    // serial of the next temporary
void tmp_release_since(uint64_t mark);  // releases live temporaries made at or after mark

// Frees a value (texts, array data) and makes the variable undefined,
// keeping its temporary flag and name.
void var_free_value(QVA_VPTR v);
// Deep copy of src's value into dst, whose old value is freed first.
void var_copy_value(const QVA_VARIABLE *src, QVA_VPTR dst);
// Moves src's value into dst (freed first); src becomes undefined.
// An array held inside a temporary's own record is copied to a block of
// its own on the way, unless keep_embedded (the caller, making a heap
// variable, copies it into the heap record at once).
void var_move_value(QVA_VPTR src, QVA_VPTR dst, bool keep_embedded = false);

// Array data: one block holding the QVA_ARRAY and its data (or a small
// block, below).
QVA_ARRAY *array_new(QVA_MEMINT elt_len, int n_dim, const QVA_MEMINT *dims, bool zero, int action);
// Frees an array block; an array held inline in a temporary's record
// (flags has kArrayInTemp) belongs to that record and is left alone.
void array_free(QVA_ARRAY *a);
constexpr QVA_LONG kArrayInSmallBlock = 0x1;  // QVA_ARRAY::flags
constexpr QVA_LONG kArrayInTemp = 0x2;
constexpr QVA_LONG kArrayInRecord = 0x4;  // a descriptor of a heap record's inline data

// Inline structures: a heap record keeps one structure element of up to
// QVA_HV_INLINE_BYTES in the record itself (flags2 QVA_V2_INLINE), right
// after its variable; value.s.arr is null until a path that needs a
// descriptor asks for one (struct_array), and that descriptor then points
// at the record's data.  Every read of a structure's data goes through
// struct_data / struct_count, which need no descriptor.
inline bool var_inline(const QVA_VARIABLE *v) { return v->flags2 == QVA_V2_INLINE; }
inline QVA_UCHAR *inline_data(const QVA_VARIABLE *v) {
  return reinterpret_cast<QVA_HEAP_VAR *>(const_cast<char *>(reinterpret_cast<const char *>(v)) -
                                          offsetof(QVA_HEAP_VAR, var))
      ->idata;
}
inline QVA_UCHAR *struct_data(const QVA_VARIABLE *v) {
  return var_inline(v) ? inline_data(v) : v->value.s.arr->data;
}
inline QVA_MEMINT struct_count(const QVA_VARIABLE *v) {
  return var_inline(v) ? 1 : v->value.s.arr->n_elts;
}
// Whether a value of this shape is kept inline in a heap record.
bool fits_inline(QVA_SDEF sdef, QVA_MEMINT n_elts, int n_dim);

// Small blocks (small_blocks.cpp): a one-dimensional array of up to
// kSmallBlockData bytes in a block of its size class, whose descriptor
// ends after dim[0] (dimensions past n_dim are never read).  Heap
// variables keep their small arrays in them.  small_block_new gives zeroed
// data, or nullptr when the array does not fit or memory runs out; the
// block is freed by array_free like any other.
constexpr size_t kSmallBlockData = 256;
QVA_ARRAY *small_block_new(QVA_MEMINT elt_len, QVA_MEMINT n);
void small_block_free(QVA_ARRAY *a);
size_t type_size(int type);  // element size of a scalar type code, 0 if none

// Scalar conversion of one element of type `from` at `src` to type `to`
// written at `dst`.  Numbers convert among themselves (to integers by
// truncation toward zero), strings parse as numbers and numbers format as
// strings (dst then owns a new text); PTR and OBJREF convert only to
// themselves.  Raises M_CONVERSION on failure.
void convert_elt(int from, const void *src, int to, void *dst);
// A scalar value of `v` converted to `to`: raises NOTSCALAR for arrays,
// UNDEFVAR for undefined.
QVA_ALLTYPES scalar_as(QVA_VPTR v, int to);
// The name used in variable errors: the variable's name, else its place in
// the running call's arguments, else "<Expression>".
std::string var_label(const QVA_VARIABLE *v);

// --------------------------------------------------------------- structures
struct TagInfo {
  QVA_IDENT name = 0;
  std::string name_str;     // upper case
  int type = 0;             // QVA_TYP_*
  QVA_SDEF sdef = nullptr;  // for QVA_TYP_STRUCT
  int n_dim = 0;            // 0: scalar
  QVA_MEMINT dims[QVA_MAX_ARRAY_DIM] = {};
  QVA_MEMINT n_elts = 1;
  size_t elt_size = 0;
  size_t offset = 0;
};

}  // namespace qvahost

// The structure definition.  Inherited tags come first, flattened: a
// subclass lays its own tags out after the last inherited one, with natural
// alignment, so the superclass's fields keep their positions.
struct QVA_STRUCTDEF {
  QVA_IDENT name = 0;        // 0: anonymous
  std::string name_str;      // upper case; "" when anonymous
  QVA_SDEF super = nullptr;  // the inherited structure (single inheritance)
  std::vector<qvahost::TagInfo> tags;
  std::unordered_map<QVA_IDENT, size_t> index;  // tag name -> position in tags
  size_t length = 0;                            // bytes per element, a multiple of align
  size_t align = 1;
  bool hidden = false;     // host-internal structure, not a class
  bool has_texts = false;  // some tag (at any depth) holds strings
  bool has_refs = false;   // some tag (at any depth) holds pointers or object references
  // A one-entry cache for the tag look-up by text address (modules pass
  // the same literal every time).
  const char *cache_name = nullptr;
  size_t cache_index = 0;
  // The methods last resolved from objects of this class (objects.cpp), so
  // that a module calling EXECUTE on a list of behaviours of a few classes
  // finds each class's routine without hashing.  An entry holds while the
  // routine generation it was found under does: adding or replacing any
  // routine (a method recompiled, an override defined in a subclass) makes
  // every entry out of date.
  struct MethodMemo {
    QVA_IDENT method = 0;
    bool is_function = false;
    uint64_t generation = ~uint64_t{0};
    qvahost::Routine *routine = nullptr;
  };
  MethodMemo method_memo[2];
};

namespace qvahost {

// Defines (or hands back an identical) structure.  Raises or returns
// nullptr according to action.
QVA_SDEF sdef_define(const std::string &name, QVA_SDEF super, const std::vector<FieldSpec> &fields,
                     bool hidden, int action);
QVA_SDEF sdef_find(QVA_IDENT name);
const TagInfo *sdef_tag(QVA_SDEF sdef, const char *name);  // nullptr when absent
// Texts inside n elements of a structure: duplicate (after a byte copy) or
// release them.
void sdef_dup_texts(QVA_SDEF sdef, QVA_UCHAR *data, QVA_MEMINT n);
void sdef_release_texts(QVA_SDEF sdef, QVA_UCHAR *data, QVA_MEMINT n);
// Every structure definition, in order of definition.
const std::vector<QVA_SDEF> &sdef_all();

// ------------------------------------------------------------------- heap
// A heap variable record: the public part and nothing else, at the place
// its identifier gives in the heap table (heap.cpp, rules in qva.h).  The
// host's own state is kept in bits of hv.flags that QVA_HV_* leave free.
// A small array value lives in a small block.
struct HeapVar {
  QVA_HEAP_VAR hv;
};
enum : uint32_t { HV_DESTROYING = 0x80000000u };  // in hv.flags: CLEANUP running
// A temporary's record keeps a one-element structure of up to this size
// inline (variables.cpp).
constexpr size_t kInlineValueBytes = 48;

HeapVar *heap_find(QVA_HVID id);  // nullptr when none
// Makes a heap variable; the value is moved from `src` when `move`, else
// copied; src may be nullptr (undefined value).  Raises or returns nullptr
// according to action.
HeapVar *heap_new(bool object, QVA_VPTR src, bool move, int action);
// A new record holding one zeroed element of sdef: in the record when it
// fits, else behind a descriptor.  One allocation for the failure sweeps.
HeapVar *heap_new_zeroed(bool object, QVA_SDEF sdef, int action);
void heap_delete(QVA_HVID id);  // frees value and record; no CLEANUP
// The identifier the next heap variable gets (2^32 once all are issued);
// heap variables made one after another get identifiers in a run.
uint64_t heap_next_id();
std::vector<QVA_HVID> heap_all();
size_t heap_leaf_pages();  // pages of the heap table in existence

// ----------------------------------------------------------------- idents
QVA_IDENT ident_of(const std::string &name);  // interns; raises M_BAD_IDENT when invalid
bool ident_valid(const char *name, size_t len);

// Whether `text` (any case) spells `upper`, a name the host keeps in upper
// case.  ASCII only, like the language's names; no locale look-ups, since
// class and tag checks run on every call of a module's methods.
inline bool same_upper_name(std::string_view upper, std::string_view text) {
  if (upper.size() != text.size()) return false;
  for (size_t i = 0; i < upper.size(); ++i) {
    char c = text[i];
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    if (c != upper[i]) return false;
  }
  return true;
}
const std::string &ident_name(QVA_IDENT id);  // upper case

// ---------------------------------------------------------------- routines
struct Routine {
  QVA_IDENT name = 0;
  std::string name_str;  // upper case
  size_t class_len = 0;  // CLASS of a method CLASS::NAME; 0 for a plain routine
  bool is_function = false;
  int arg_min = 0, arg_max = 0;
  uint32_t flags = 0;  // QVA_SYSFUN_KEYWORDS
  QVA_SYSRTN_GENERIC native = nullptr;
  UserRoutine user;  // when not native
  // A method: the last class of self found to be (or to inherit from) the
  // method's class.  Definitions never change or go away, so the check
  // need not be repeated for further objects of that class.
  QVA_SDEF self_class_ok = nullptr;
  // Whether the name matches the trace patterns, as found under the
  // patterns' generation trace_generation (trace.cpp).
  uint32_t trace_generation = 0;
  bool trace_match = false;
};
Routine *routine_find(QVA_IDENT name, bool is_function);
// Calls a routine with the argument checks the language makes.  Returns a
// function's result temporary, nullptr for a procedure.  `self_checked`
// says argument 0 is already known to be a live object of the method's
// class (the method was resolved from that object's class chain).
QVA_VPTR routine_invoke(Routine &r, int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk,
                        bool self_checked = false);

// Method resolution through the class chain; cached.
Routine *method_find(QVA_SDEF cls, QVA_IDENT method, bool is_function);
// Calls a method with self given as an object reference.  `r` must have
// been resolved from the class chain of the live object `self`.
QVA_VPTR method_invoke(Routine &r, QVA_HVID self, int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk);

// Calls QVA_ResetSession of every loaded module (used by reset_session()).
void modules_reset_session();

}  // namespace qvahost

// Keywords of one call, as the caller gave them.
struct QVA_KW_ARGS {
  std::vector<qvahost::Keyword> items;
};

namespace qvahost {
// -------------------------------------------------------------- session
// (session_vars.cpp) Discards every main-level variable.
void main_variables_clear();
// Every main-level variable, in name order.
std::vector<QVA_VPTR> main_variables();
}  // namespace qvahost
