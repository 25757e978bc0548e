// Writes real save files into a directory, as seeds for the reader's fuzzer:
// scalars, arrays, structures with every field kind, pointers, objects and a
// reference cycle.
//
//   make_save_corpus DIR
#include <cstdio>
#include <cstring>
#include <string>

#include "qva_host.h"

namespace {

void set(const char *name, QVA_VPTR tmp) {
  QVA_VarCopy(tmp, qvahost::main_variable(name));
  QVA_Deltmp(tmp);
}

QVA_HVID new_ptr(QVA_VPTR tmp) {
  QVA_HVID id = QVA_HeapVarNew(QVA_TYP_PTR, tmp, 1, QVA_MSG_LONGJMP)->hash_id;
  QVA_Deltmp(tmp);
  return id;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s DIR\n", argv[0]);
    return 2;
  }
  std::string dir = argv[1];
  set("L", qvahost::make_long(7));
  set("S", qvahost::make_string("text"));
  qvahost::save_all(dir + "/scalars.sav");

  set("A", qvahost::make_long_array({1, 2, 3}));
  set("SA", qvahost::make_string_array({"a", "", "ccc"}));
  qvahost::save_all(dir + "/arrays.sav");

  QVA_SDEF inner = qvahost::define_struct("CORPUS_INNER", "", {{"D", QVA_TYP_DOUBLE}, {"B", QVA_TYP_BYTE}});
  QVA_SDEF node = qvahost::define_struct(
      "CORPUS_NODE", "",
      {{"NEXT", QVA_TYP_PTR}, {"NAME", QVA_TYP_STRING}, {"V", QVA_TYP_LONG, nullptr, {2, 2}},
       {"IN", QVA_TYP_STRUCT, inner, {}}, {"Q", QVA_TYP_LONG64}, {"OWNER", QVA_TYP_OBJREF}});
  qvahost::define_struct("CORPUS_SUB", "CORPUS_NODE", {{"EXTRA", QVA_TYP_INT}});
  QVA_VPTR t;
  QVA_MakeTempStructVector(qvahost::find_struct("CORPUS_SUB"), 1, &t, 1);
  QVA_HVID obj = QVA_HeapVarNew(QVA_TYP_OBJREF, t, 1, QVA_MSG_LONGJMP)->hash_id;
  QVA_Deltmp(t);
  QVA_MakeTempStructVector(node, 2, &t, 1);
  QVA_HVID a = new_ptr(t);
  QVA_HVID b = new_ptr(qvahost::make_ptr(a));
  QVA_HVPTR ha = QVA_HeapVarHashFind(a);
  std::memcpy(QVA_StructGetTagAddress(&ha->var, "NEXT", nullptr, nullptr, QVA_MSG_LONGJMP), &b, 4);
  std::memcpy(QVA_StructGetTagAddress(&ha->var, "OWNER", nullptr, nullptr, QVA_MSG_LONGJMP), &obj, 4);
  QVA_StrStore(static_cast<QVA_STRING *>(QVA_StructGetTagAddress(&ha->var, "NAME", nullptr, nullptr, 2)), "node");
  set("HEAD", qvahost::make_ptr(a));
  qvahost::save_variables(dir + "/graph.sav", {"HEAD"});
  qvahost::save_all(dir + "/all.sav");
  qvahost::reset_session();
  return 0;
}
