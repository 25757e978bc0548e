// Classes and objects: a class is a named structure with single
// inheritance, its methods are routines named CLASS::METHOD.  Method
// resolution walks the class chain upward and is cached until routines are
// added.  Object creation runs INIT, destruction runs CLEANUP.
#include <algorithm>
#include <cctype>
#include <cstring>
#include <set>
#include <unordered_map>
#include <unordered_set>

#include "dispatch.h"

namespace qvahost {
namespace {

struct MethodKey {
  QVA_SDEF cls;
  QVA_IDENT method;
  bool is_function;
  bool operator==(const MethodKey &) const = default;
};

struct MethodKeyHash {
  size_t operator()(const MethodKey &k) const {
    size_t h = std::hash<const void *>()(k.cls);
    h = h * 31 + k.method;
    return h * 2 + (k.is_function ? 1 : 0);
  }
};

// Resolutions, including the misses (nullptr).
std::unordered_map<MethodKey, Routine *, MethodKeyHash> &method_cache() {
  static std::unordered_map<MethodKey, Routine *, MethodKeyHash> cache;
  return cache;
}

QVA_IDENT ident_init() {
  static const QVA_IDENT id = ident_of("INIT");
  return id;
}

QVA_IDENT ident_cleanup() {
  static const QVA_IDENT id = ident_of("CLEANUP");
  return id;
}

bool has_keywords(const QVA_KW_ARGS *argk) { return argk && !argk->items.empty(); }

// The object named by a live identifier, or nullptr.
HeapVar *live_object(QVA_HVID id) {
  HeapVar *h = id ? heap_find(id) : nullptr;
  return h && (h->hv.flags & QVA_HV_OBJECT) ? h : nullptr;
}

std::string method_label(QVA_SDEF cls, QVA_IDENT method) {
  std::string cls_name = cls && !cls->name_str.empty() ? cls->name_str : "<anonymous>";
  return cls_name + "::" + ident_name(method);
}

// Classes whose __DEFINE procedure is running (a definition that asks for
// its own class again must not recurse).
std::unordered_set<QVA_IDENT> &classes_being_defined() {
  static std::unordered_set<QVA_IDENT> s;
  return s;
}

// The heap identifiers of the object references in one argument.
void collect_objrefs(QVA_VPTR v, std::vector<QVA_HVID> &out) {
  if (!v || v->type == QVA_TYP_UNDEF) return;
  if (v->type != QVA_TYP_OBJREF || (v->flags & QVA_V_STRUCT))
    raise_fmt(M_REQOBJREF, "Object reference type required in this context: %s.",
              var_label(v).c_str());
  if (v->flags & QVA_V_ARR) {
    const QVA_ARRAY *a = v->value.arr;
    for (QVA_MEMINT i = 0; i < a->n_elts; ++i) {
      QVA_HVID id;
      std::memcpy(&id, a->data + i * sizeof(QVA_HVID), sizeof id);
      out.push_back(id);
    }
  } else {
    out.push_back(v->value.hvid);
  }
}

}  // namespace

QVA_SDEF object_class(const HeapVar *h) {
  if (!h || !(h->hv.var.flags & QVA_V_STRUCT)) return nullptr;
  return h->hv.var.value.s.sdef;
}

bool class_chain_has(QVA_SDEF cls, std::string_view name) {
  for (QVA_SDEF c = cls; c; c = c->super)
    if (same_upper_name(c->name_str, name)) return true;
  return false;
}

namespace {
uint64_t g_method_generation = 0;
}  // namespace

void method_cache_clear() {
  method_cache().clear();
  ++g_method_generation;
}

uint64_t method_cache_generation() { return g_method_generation; }

namespace {

// method_find past the class's memo: the resolution cache, else a walk up
// the class chain; the memo then holds the answer.
[[gnu::noinline]] Routine *method_find_unremembered(QVA_SDEF cls, QVA_IDENT method,
                                                   bool is_function) {
  MethodKey key{cls, method, is_function};
  auto &cache = method_cache();
  Routine *found = nullptr;
  if (auto it = cache.find(key); it != cache.end()) {
    found = it->second;
  } else {
    const std::string &method_name = ident_name(method);
    for (QVA_SDEF c = cls; c && !found; c = c->super) {
      if (c->name_str.empty()) continue;
      found = routine_find_name(c->name_str + "::" + method_name, is_function);
    }
    cache.emplace(key, found);
  }
  auto &memo = cls->method_memo;
  memo[1] = memo[0];
  memo[0] = {method, is_function, g_method_generation, found};
  return found;
}

// method_find, inline where a dispatch resolves a method per behaviour.
inline Routine *method_lookup(QVA_SDEF cls, QVA_IDENT method, bool is_function) {
  if (!cls || !method) return nullptr;
  // A dispatch calls the same method of objects of a few classes over and
  // over: each class answers for its last two resolutions without hashing.
  for (const auto &m : cls->method_memo)
    if (m.method == method && m.is_function == is_function && m.generation == g_method_generation)
      return m.routine;
  return method_find_unremembered(cls, method, is_function);
}

}  // namespace

Routine *method_find(QVA_SDEF cls, QVA_IDENT method, bool is_function) {
  return method_lookup(cls, method, is_function);
}

namespace {

// Runs `call(n, all)` with the argument list of a method call on `self`:
// the object reference first, then argv.  The reference is a variable of
// this call, like a temporary to the method, freed when the call ends (also
// of whatever the method stored in it).
template <class Call>
inline QVA_VPTR with_self_first(QVA_HVID self, int argc, QVA_VPTR argv[], Call call) {
  QVA_VARIABLE self_var{};
  self_var.type = QVA_TYP_OBJREF;
  self_var.flags = QVA_V_TEMP;
  self_var.value.hvid = self;
  struct SelfRelease {
    QVA_VARIABLE &v;
    ~SelfRelease() {
      // Only arrays, structures and texts own storage; the plain reference
      // it usually still holds owns none.
      if ((v.flags & (QVA_V_ARR | QVA_V_STRUCT)) || v.type == QVA_TYP_STRING) var_free_value(&v);
    }
  } self_release{self_var};
  // Most calls have few arguments: no allocation for them.
  constexpr int kLocal = 8;
  QVA_VPTR local[kLocal + 1];
  std::vector<QVA_VPTR> many;
  QVA_VPTR *all = local;
  if (argc > kLocal) {
    many.resize(static_cast<size_t>(argc) + 1);
    all = many.data();
  }
  all[0] = &self_var;
  if (argc == 1)
    all[1] = argv[0];  // a dispatch's argument: no call to copy one pointer
  else
    for (int i = 0; i < argc; ++i) all[i + 1] = argv[i];
  return call(argc + 1, all);
}

}  // namespace

QVA_VPTR method_invoke(Routine &r, QVA_HVID self, int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
  return with_self_first(self, argc, argv, [&](int n, QVA_VPTR *all) {
    return routine_invoke(r, n, all, argk, true);
  });
}

void object_destroy(QVA_HVID id, QVA_KW_ARGS *argk) {
  HeapVar *h = live_object(id);
  if (!h || (h->hv.flags & HV_DESTROYING)) return;
  Routine *cleanup = method_find(object_class(h), ident_cleanup(), false);
  if (!cleanup && has_keywords(argk))
    raise(M_KW_NOT_ALLOWED, "Keyword parameters not allowed in call.");
  h->hv.flags |= HV_DESTROYING;
  // The object goes even when its CLEANUP is abandoned.
  struct Deleter {
    QVA_HVID id;
    ~Deleter() {
      if (heap_find(id)) heap_delete(id);
    }
  } deleter{id};
  if (cleanup) method_invoke(*cleanup, id, 0, nullptr, argk);
}

}  // namespace qvahost

using namespace qvahost;

QVA_HVPTR QVA_ObjValidate(QVA_HVID hvid, int action) {
  if (HeapVar *h = live_object(hvid)) return &h->hv;
  if (action == QVA_MSG_LONGJMP)
    raise_fmt(M_INVALID_OBJ, "Invalid object reference: <ObjHeapVar%u>.", hvid);
  return nullptr;
}

int QVA_ObjContainsClassByStr(QVA_SDEF cls, const char *name, int, int, int action) {
  if (!cls || !name) {
    message(M_BAD_ARG, action, "Class test without a class or a class name.");
    return 0;
  }
  return class_chain_has(cls, name) ? 1 : 0;
}

std::vector<MethodInfo> qvahost::class_methods(QVA_SDEF cls) {
  std::vector<MethodInfo> out;
  std::set<std::pair<std::string, bool>> seen;  // overridden further down the chain
  for (QVA_SDEF c = cls; c; c = c->super) {
    if (c->name_str.empty()) continue;
    std::vector<MethodInfo> own;
    for (bool is_function : {false, true})
      for (const Routine *r : class_routines(c->name_str, is_function)) {
        std::string name = r->name_str.substr(r->class_len + 2);
        if (seen.insert({name, is_function}).second)
          own.push_back({name, c->name_str, is_function, r->native != nullptr});
      }
    std::sort(own.begin(), own.end(), [](const MethodInfo &a, const MethodInfo &b) {
      return a.name != b.name ? a.name < b.name : a.is_function < b.is_function;
    });
    out.insert(out.end(), own.begin(), own.end());
  }
  return out;
}

QVA_SDEF QVA_ObjRuntimeDefine(QVA_IDENT cls) {
  if (!cls) raise(M_CLASS_UNKNOWN, "Class not defined: <none>.");
  QVA_SDEF sdef = sdef_find(cls);
  const std::string &name = ident_name(cls);
  if ((!sdef || sdef->hidden) && !classes_being_defined().count(cls)) {
    // The front end defines a class in a procedure named NAME__DEFINE.
    if (Routine *define = routine_find_or_load(name + "__DEFINE", false)) {
      classes_being_defined().insert(cls);
      struct Done {
        QVA_IDENT id;
        ~Done() { classes_being_defined().erase(id); }
      } done{cls};
      routine_invoke(*define, 0, nullptr, nullptr);
      sdef = sdef_find(cls);
    }
  }
  if (!sdef || sdef->hidden) raise_fmt(M_CLASS_UNKNOWN, "Class not defined: %s.", name.c_str());
  return sdef;
}

QVA_VPTR QVA_ObjNew(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
  if (argc < 1 || !argv || !argv[0]) raise(M_WRONG_ARG_COUNT, "Incorrect number of arguments.");
  QVA_VPTR name_var = argv[0];
  if (name_var->type != QVA_TYP_STRING)
    raise_fmt(M_REQSTR, "String expression required in this context: %s.",
              var_label(name_var).c_str());
  if (name_var->flags & QVA_V_NOT_SCALAR)
    raise_fmt(M_NOTSCALAR, "Expression must be a scalar in this context: %s.",
              var_label(name_var).c_str());
  QVA_IDENT cls_id = ident_of(QVA_STRING_STR(&name_var->value.str));
  QVA_SDEF sdef = QVA_ObjRuntimeDefine(cls_id);

  Routine *init = method_find(sdef, ident_init(), true);
  if (!init) {
    if (argc > 1) raise(M_WRONG_ARG_COUNT, "Incorrect number of arguments.");
    if (has_keywords(argk)) raise(M_KW_NOT_ALLOWED, "Keyword parameters not allowed in call.");
  }

  // One zeroed instance in a new object heap variable.
  QVA_HVID id = heap_new_zeroed(true, sdef, QVA_MSG_LONGJMP)->hv.hash_id;

  if (init) {
    bool keep = false;
    try {
      TempGuard result(method_invoke(*init, id, argc - 1, argv + 1, argk));
      keep = scalar_as(result.get(), QVA_TYP_LONG).l != 0;
    } catch (const HostError &) {
      // The error goes on; the half-made object must not stay behind.  A
      // CLEANUP that fails as well is reported, not allowed to replace it.
      try {
        object_destroy(id, nullptr);
      } catch (const HostError &cleanup_error) {
        emit(cleanup_error.report());
      }
      throw;
    }
    if (!keep) {
      object_destroy(id, nullptr);
      return make_objref(0);
    }
  }
  return make_objref(id);
}

void QVA_ObjDestroy(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
  // The identifiers are taken first: a CLEANUP may change the arguments.
  std::vector<QVA_HVID> ids;
  for (int i = 0; i < argc; ++i) collect_objrefs(argv[i], ids);
  for (QVA_HVID id : ids) object_destroy(id, argk);
}

int QVA_ObjCallMethod(int action, QVA_IDENT method, QVA_HVPTR self, int, int argc, QVA_VPTR argv[],
                      QVA_KW_ARGS *argk, QVA_VPTR *result, int) {
  HeapVar *h = self ? live_object(self->hash_id) : nullptr;
  if (!h || &h->hv != self) {
    message(M_INVALID_OBJ, action,
            format("Invalid object reference: <ObjHeapVar%u>.", self ? self->hash_id : 0u));
    return 0;
  }
  QVA_SDEF cls = object_class(h);
  Routine *r = method_find(cls, method, result != nullptr);
  if (!r) {
    message(M_UNDEF_METHOD, action,
            format("Attempt to call undefined method: '%s'.", method_label(cls, method).c_str()));
    return 0;
  }
  QVA_VPTR value = method_invoke(*r, self->hash_id, argc, argv, argk);
  if (result) *result = value;
  return 1;
}

void QVA_ObjCallProcMethod(QVA_IDENT method, QVA_HVID self, int argc, QVA_VPTR argv[]) {
  // The published inline look-up: a dispatch makes this call per behaviour.
  QVA_HVPTR hv = QVA_HeapVarFind(self);
  if (!hv || !(hv->flags & QVA_HV_OBJECT))
    raise_fmt(M_INVALID_OBJ, "Invalid object reference: <ObjHeapVar%u>.", self);
  QVA_SDEF cls = hv->var.flags & QVA_V_STRUCT ? hv->var.value.s.sdef : nullptr;
  Routine *r = method_lookup(cls, method, false);
  if (!r)
    raise_fmt(M_UNDEF_METHOD, "Attempt to call undefined method: '%s'.",
              method_label(cls, method).c_str());
  // No keywords, and self is a live object whose class chain gave `r`:
  // what routine_invoke still checks is the arguments' count and presence.
  with_self_first(self, argc, argv, [&](int n, QVA_VPTR *all) {
    return routine_invoke(*r, n, all, nullptr, true);
  });
}
