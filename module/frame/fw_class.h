// fw_class.h - what every class of the module shares: the class part, the
// layout of each class's instance data, the keyword record of the INIT
// methods, the keyword rows, and the locating operations and upcasts.
//
// An object's instance is a host structure.  The module reaches its data
// through the address of its first field (QVAFWSAVEABLE_TOP for framework
// classes, QVADSMAP_VERSION for QVAdsMap) and fixed positions from there,
// mirrored by the *Data structures below.  Nothing here keeps an address
// between calls: every routine locates its object afresh from its heap
// identifier.
#pragma once

#include <qva/qva.h>

#include <cstddef>
#include <cstdint>

static_assert(sizeof(QVA_STRING) == 12, "the host string descriptor is 12 bytes");

// ------------------------------------------------------------ class part

// An object as every internal operation takes it: the address of its data
// block and its heap identifier.  One type serves the whole class chain,
// so upcasts hand it back unchanged.
struct ClassPart {
  void *data;
  QVA_HVID hvid;
};

// ------------------------------------------------------ instance layouts
//
// The host flattens inherited fields and lays a subclass's own fields out
// right after the last inherited one, with natural alignment, so a
// subclass may start inside its superclass's tail padding (the saveable
// part is 12 bytes, not 16).  Packing to 4 reproduces that with nested
// structures; the 8-byte fields all fall on 8-byte positions anyway.
#pragma pack(push, 4)

struct SaveableData {
  double top;        // QVAFWSAVEABLE_TOP: the restored marker, 1.0 when restored
  QVA_LONG version;  // QVAFWSAVEABLE_VERSION
};

struct HasAHandlerData {
  SaveableData saveable;
  QVA_LONG version;    // HASAHANDLER_VERSION
  QVA_HVID myhandler;  // MYHANDLER (OBJREF)
};

struct MessageData {
  HasAHandlerData hasahandler;
  QVA_LONG version;     // QVAFWMESSAGE_VERSION
  QVA_HVID mess_ident;  // MESS_IDENT (PTR)
};

struct QueryData {
  MessageData message;
  QVA_LONG version;       // QVAFWQUERY_VERSION
  QVA_HVID query_result;  // QUERY_RESULT (PTR)
};

struct MessageHandlerData {
  HasAHandlerData hasahandler;
  QVA_LONG version;    // QVAFWMESSAGEHANDLER_VERSION
  QVA_HVID behaviors;  // BEHAVIORS (PTR)
};

struct BehaviorData {
  HasAHandlerData hasahandler;
  QVA_LONG version;         // QVAFWBEHAVIOR_VERSION
  QVA_UCHAR is_registered;  // IS_REGISTERED (BYTE)
  QVA_HVID messident;       // MESSIDENT (PTR)
};

struct ObjBehavData {
  BehaviorData behavior;
  QVA_LONG version;     // QVAFWOBJBEHAV_VERSION
  QVA_HVID object;      // OBJECT (OBJREF)
  QVA_HVID meth_ident;  // METH_IDENT (PTR)
};

struct ProcBehavData {
  BehaviorData behavior;
  QVA_LONG64 top;          // QVAFWPROCBEHAV_TOP: reserved
  QVA_LONG version;        // QVAFWPROCBEHAV_VERSION
  QVA_STRING proc_string;  // PROC_STRING
  QVA_LONG64 bottom;       // QVAFWPROCBEHAV_BOTTOM: reserved
};

struct FuncBehavData {
  BehaviorData behavior;
  QVA_LONG64 top;          // QVAFWFUNCBEHAV_TOP: reserved
  QVA_LONG version;        // QVAFWFUNCBEHAV_VERSION
  QVA_STRING func_string;  // FUNC_STRING
  QVA_LONG64 bottom;       // QVAFWFUNCBEHAV_BOTTOM: reserved
};

struct QueryBehavData {
  BehaviorData behavior;
  QVA_LONG version;   // QVAFWQUERYBEHAV_VERSION
  QVA_HVID response;  // RESPONSE (PTR)
};

struct DelayBehavData {
  BehaviorData behavior;
  QVA_LONG version;       // QVAFWDELAYBEHAV_VERSION
  QVA_HVID object;        // OBJECT (OBJREF)
  QVA_HVID meth_ident;    // METH_IDENT (PTR)
  QVA_HVID sub_behavior;  // SUB_BEHAVIOR (OBJREF)
};

struct DelayArgBehavData {
  DelayBehavData delaybehav;
  QVA_LONG version;  // QVAFWDELAYARGBEHAV_VERSION
  QVA_LONG arg;      // ARG
};

struct DSMapData {
  QVA_LONG version;  // QVADSMAP_VERSION
  QVA_HVID the_map;  // THE_MAP (PTR)
};

#pragma pack(pop)

// Every position is fixed by the class structures the host lays out.
static_assert(offsetof(SaveableData, top) == 0);
static_assert(offsetof(SaveableData, version) == 8);
static_assert(sizeof(SaveableData) == 12);
static_assert(offsetof(HasAHandlerData, version) == 12);
static_assert(offsetof(HasAHandlerData, myhandler) == 16);
static_assert(sizeof(HasAHandlerData) == 20);
static_assert(offsetof(MessageData, version) == 20);
static_assert(offsetof(MessageData, mess_ident) == 24);
static_assert(sizeof(MessageData) == 28);
static_assert(offsetof(QueryData, version) == 28);
static_assert(offsetof(QueryData, query_result) == 32);
static_assert(offsetof(MessageHandlerData, version) == 20);
static_assert(offsetof(MessageHandlerData, behaviors) == 24);
static_assert(offsetof(BehaviorData, version) == 20);
static_assert(offsetof(BehaviorData, is_registered) == 24);
static_assert(offsetof(BehaviorData, messident) == 28);
static_assert(sizeof(BehaviorData) == 32);
static_assert(offsetof(ObjBehavData, version) == 32);
static_assert(offsetof(ObjBehavData, object) == 36);
static_assert(offsetof(ObjBehavData, meth_ident) == 40);
static_assert(offsetof(ProcBehavData, top) == 32);
static_assert(offsetof(ProcBehavData, version) == 40);
static_assert(offsetof(ProcBehavData, proc_string) == 44);
static_assert(offsetof(ProcBehavData, bottom) == 56);
static_assert(offsetof(FuncBehavData, top) == 32);
static_assert(offsetof(FuncBehavData, version) == 40);
static_assert(offsetof(FuncBehavData, func_string) == 44);
static_assert(offsetof(FuncBehavData, bottom) == 56);
static_assert(offsetof(QueryBehavData, version) == 32);
static_assert(offsetof(QueryBehavData, response) == 36);
static_assert(offsetof(DelayBehavData, version) == 32);
static_assert(offsetof(DelayBehavData, object) == 36);
static_assert(offsetof(DelayBehavData, meth_ident) == 40);
static_assert(offsetof(DelayBehavData, sub_behavior) == 44);
static_assert(sizeof(DelayBehavData) == 48);
static_assert(offsetof(DelayArgBehavData, version) == 48);
static_assert(offsetof(DelayArgBehavData, arg) == 52);
static_assert(offsetof(DSMapData, version) == 0);
static_assert(offsetof(DSMapData, the_map) == 4);

// Typed views of a class part's data block.
inline SaveableData *saveable_data(ClassPart p) { return static_cast<SaveableData *>(p.data); }
inline HasAHandlerData *hasahandler_data(ClassPart p) {
  return static_cast<HasAHandlerData *>(p.data);
}
inline MessageData *message_data(ClassPart p) { return static_cast<MessageData *>(p.data); }
inline QueryData *query_data(ClassPart p) { return static_cast<QueryData *>(p.data); }
inline MessageHandlerData *messagehandler_data(ClassPart p) {
  return static_cast<MessageHandlerData *>(p.data);
}
inline BehaviorData *behavior_data(ClassPart p) { return static_cast<BehaviorData *>(p.data); }
inline ObjBehavData *objbehav_data(ClassPart p) { return static_cast<ObjBehavData *>(p.data); }
inline ProcBehavData *procbehav_data(ClassPart p) { return static_cast<ProcBehavData *>(p.data); }
inline FuncBehavData *funcbehav_data(ClassPart p) { return static_cast<FuncBehavData *>(p.data); }
inline QueryBehavData *querybehav_data(ClassPart p) {
  return static_cast<QueryBehavData *>(p.data);
}
inline DelayBehavData *delaybehav_data(ClassPart p) {
  return static_cast<DelayBehavData *>(p.data);
}
inline DelayArgBehavData *delayargbehav_data(ClassPart p) {
  return static_cast<DelayArgBehavData *>(p.data);
}
inline DSMapData *dsmap_data(ClassPart p) { return static_cast<DSMapData *>(p.data); }

// --------------------------------------------------------- keyword record

// The keywords of every framework INIT, each at one fixed place whichever
// class's table is used.  The class initialisations receive `fields`, the
// record without its free marker (record positions less 4).
struct FwKeywordFields {
  QVA_LONG handler_given;
  QVA_HVID handler;
  QVA_LONG messagestring_given;
  QVA_STRING messagestring;
  QVA_LONG scope_given;
  QVA_LONG scope;
  QVA_LONG register_given;
  QVA_LONG register_value;
  // Shared by METHOD, FUNCTION and PROCEDURE (a name) and RESPONSE (the
  // caller's QVA_VPTR stored at the start of these 12 bytes; read it with
  // fw_kwResponse, a union would move every later field).
  QVA_LONG method_given;
  QVA_STRING method;
  QVA_LONG object_given;
  QVA_HVID object;
  QVA_LONG delaymessagestring_given;
  QVA_STRING delaymessagestring;
};

// 8-aligned so that the RESPONSE pointer stored at position 48 is aligned.
struct alignas(8) FwKeywordRecord {
  QVA_LONG free_marker;  // non-zero: QVA_KWFree must be called afterwards
  FwKeywordFields fields;
};

static_assert(offsetof(FwKeywordRecord, free_marker) == 0);
static_assert(offsetof(FwKeywordRecord, fields.handler_given) == 4);
static_assert(offsetof(FwKeywordRecord, fields.handler) == 8);
static_assert(offsetof(FwKeywordRecord, fields.messagestring_given) == 12);
static_assert(offsetof(FwKeywordRecord, fields.messagestring) == 16);
static_assert(offsetof(FwKeywordRecord, fields.scope_given) == 28);
static_assert(offsetof(FwKeywordRecord, fields.scope) == 32);
static_assert(offsetof(FwKeywordRecord, fields.register_given) == 36);
static_assert(offsetof(FwKeywordRecord, fields.register_value) == 40);
static_assert(offsetof(FwKeywordRecord, fields.method_given) == 44);
static_assert(offsetof(FwKeywordRecord, fields.method) == 48);
static_assert(offsetof(FwKeywordRecord, fields.object_given) == 60);
static_assert(offsetof(FwKeywordRecord, fields.object) == 64);
static_assert(offsetof(FwKeywordRecord, fields.delaymessagestring_given) == 68);
static_assert(offsetof(FwKeywordRecord, fields.delaymessagestring) == 72);
static_assert(sizeof(QVA_VPTR) <= sizeof(QVA_STRING), "RESPONSE fits the method slot");

// The variable given for RESPONSE (tables with the 0x3000 RESPONSE row).
QVA_VPTR fw_kwResponse(const FwKeywordFields *kw);

// ------------------------------------------------------------ keyword rows

// One row of a keyword table; positions are record positions.
constexpr QVA_KW_PAR fw_kwRow(const char *keyword, QVA_UCHAR type, uint16_t flags, size_t given,
                              size_t value) {
  return QVA_KW_PAR{
      keyword, type, 0, 1, flags, 0, static_cast<uint32_t>(given), static_cast<uint32_t>(value)};
}

#define FW_KW_POSITIONS(field) \
  offsetof(FwKeywordRecord, fields.field##_given), offsetof(FwKeywordRecord, fields.field)

// Every table starts with the empty row, lists its keywords alphabetically
// and ends with the null row.
inline constexpr QVA_KW_PAR FW_KW_FIRST = {"", 0, 0, 0, 0, 0, 0, 0};
inline constexpr QVA_KW_PAR FW_KW_END = {nullptr, 0, 0, 0, 0, 0, 0, 0};

inline constexpr QVA_KW_PAR FW_KW_DELAYMESSAGESTRING =
    fw_kwRow("DELAYMESSAGESTRING", QVA_TYP_STRING, 0, FW_KW_POSITIONS(delaymessagestring));
inline constexpr QVA_KW_PAR FW_KW_FUNCTION =
    fw_kwRow("FUNCTION", QVA_TYP_STRING, 0, FW_KW_POSITIONS(method));
inline constexpr QVA_KW_PAR FW_KW_HANDLER =
    fw_kwRow("HANDLER", QVA_TYP_OBJREF, 0, FW_KW_POSITIONS(handler));
inline constexpr QVA_KW_PAR FW_KW_MESSAGESTRING =
    fw_kwRow("MESSAGESTRING", QVA_TYP_STRING, 0, FW_KW_POSITIONS(messagestring));
inline constexpr QVA_KW_PAR FW_KW_METHOD =
    fw_kwRow("METHOD", QVA_TYP_STRING, 0, FW_KW_POSITIONS(method));
inline constexpr QVA_KW_PAR FW_KW_OBJECT =
    fw_kwRow("OBJECT", QVA_TYP_OBJREF, 0, FW_KW_POSITIONS(object));
inline constexpr QVA_KW_PAR FW_KW_PROCEDURE =
    fw_kwRow("PROCEDURE", QVA_TYP_STRING, 0, FW_KW_POSITIONS(method));
inline constexpr QVA_KW_PAR FW_KW_REGISTER = fw_kwRow(
    "REGISTER", QVA_TYP_LONG, QVA_KW_ZERO, offsetof(FwKeywordRecord, fields.register_given),
    offsetof(FwKeywordRecord, fields.register_value));
inline constexpr QVA_KW_PAR FW_KW_RESPONSE =
    fw_kwRow("RESPONSE", QVA_TYP_UNDEF, QVA_KW_BY_VAR, FW_KW_POSITIONS(method));
inline constexpr QVA_KW_PAR FW_KW_SCOPE =
    fw_kwRow("SCOPE", QVA_TYP_LONG, QVA_KW_ZERO, FW_KW_POSITIONS(scope));

#undef FW_KW_POSITIONS

// ------------------------------------------------- INIT with keywords

using FwLocateFn = ClassPart (*)(QVA_VPTR self);
using FwInitFn = int (*)(ClassPart part, FwKeywordFields *kw);

// The body of every framework INIT that takes keywords: processes the
// keywords into a record with `keywords`, locates the object (the only
// positional argument) with `locate`, runs `init` on it and returns its
// result (1 or 0) as a LONG temporary.  The host's keyword resources are
// released also when the initialisation is abandoned.
QVA_VPTR fw_initWithKeywords(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk, QVA_KW_PAR *keywords,
                             FwLocateFn locate, FwInitFn init);

// ------------------------------------------------------ identifier texts

// The text an identifier field names, for reading: the identifier's own
// string (owned by the identifier), or "ERROR" when the identifier variable
// has vanished (owned by this object and deleted with it).
class IdentText {
 public:
  explicit IdentText(QVA_HVID ident);
  ~IdentText();
  IdentText(const IdentText &) = delete;
  IdentText &operator=(const IdentText &) = delete;
  const QVA_STRING &get() const { return text_; }

 private:
  QVA_STRING text_{};
  bool owned_ = false;
};

// ------------------------------------------------------ scoped holders

// A host string holding a constant text for the length of one call.
class HostString {
 public:
  explicit HostString(const char *text) { QVA_StrStore(&s_, text); }
  ~HostString() { QVA_StrDelete(&s_, 1); }
  HostString(const HostString &) = delete;
  HostString &operator=(const HostString &) = delete;
  const QVA_STRING *get() const { return &s_; }

 private:
  QVA_STRING s_{};
};

// A temporary the module made, released at the end of the scope, also when
// an error unwinds through it.
class ScopedTemp {
 public:
  explicit ScopedTemp(QVA_VPTR v) : v_(v) {}
  ~ScopedTemp() { QVA_Deltmp(v_); }
  ScopedTemp(const ScopedTemp &) = delete;
  ScopedTemp &operator=(const ScopedTemp &) = delete;
  QVA_VPTR get() const { return v_; }

 private:
  QVA_VPTR v_;
};

// ------------------------------------------------------ routine helpers

// A descriptor owning its own copy of the text of `s`.  The copy is made
// in a local descriptor first: if it fails, no descriptor the caller fills
// (a result's, which the host releases on the way out) names the text it
// was to be copied from.
QVA_STRING fw_ownedText(const QVA_STRING &s);
// Results as the routines return them: a STRING temporary owning a copy of
// the text, an object reference temporary.
QVA_VPTR fw_stringTemp(const QVA_STRING &s);
QVA_VPTR fw_objrefTemp(QVA_HVID h);
// A setter's name argument: not a string is the host message -204 naming
// `routine`; an array of strings is refused as not scalar.
void fw_requireScalarString(QVA_VPTR v, const char *routine);

// ------------------------------------------------------------ value cells
//
// A value a framework object owns in a pointer heap variable (a query's
// result, a query behaviour's response), so that it travels with a saved
// session.  `cell` is the field holding the variable's heap identifier.

// The heap variable `id` names when it may be a value of the module's own
// (a cell's variable, a data map's key or value): a pointer heap variable
// that is not an identifier and not a tree node.  Null otherwise: a
// restored file may point such a field anywhere, and writing or deleting
// what belongs to others would break it.
QVA_HVPTR fw_plainHeapVar(QVA_HVID id);
// Stores a copy of `value`: into the existing variable, overwritten in
// place, else into a new one.  A cell whose variable has vanished, or that
// names a variable that is not its own, is reported as a host error.
void fw_cellStore(QVA_HVID *cell, QVA_VPTR value, const char *what);
// Deletes the variable (if it still exists and is the cell's own) and
// empties the cell.
void fw_cellClear(QVA_HVID *cell);
// A temporary with a copy of the value: `unset_text` for an empty cell,
// undefined for a vanished variable.
QVA_VPTR fw_cellValue(QVA_HVID cell, const char *unset_text);

// ------------------------------------------------------------ locating

// The heap identifier held by an object reference variable (a scalar
// OBJREF, else the host's variable error).
QVA_HVID fw_objrefOf(QVA_VPTR v);
// The data block of object `hvid`, which begins at its field `first_field`.
// A dead identifier ends the routine with the host's invalid-object error;
// an object without that field (of a foreign class) is refused naming
// `class_name`.
void *fw_locateData(QVA_HVID hvid, const char *first_field, const char *class_name);
// As fw_locateData for an object's heap variable already found.
void *fw_dataOfHeapVar(QVA_HVPTR hv, const char *first_field, const char *class_name);
// A framework class as its locating operation checks objects against it:
// its structure, the name a refusal gives, and the classes (structure
// definitions) whose objects passed, each with where the framework data
// starts in their instances.  Definitions never change or go away, so a
// class that passed once passes for every object of it; an object never
// changes class.  A few classes share one locating operation (a behaviour
// kind's subclasses), so a handful of them are remembered, the oldest
// making way; no instance address is kept.
struct FwClass {
  static constexpr int kRemembered = 8;
  const char *structure;
  const char *class_name;
  QVA_SDEF passed[kRemembered];
  QVA_MEMINT offset[kRemembered];
  unsigned next;
};

// fw_classPart's full check, for an object of a class not remembered yet
// (and for every object that is no live framework object, which it refuses).
ClassPart fw_classPartChecked(QVA_HVID hvid, FwClass &cls);

// The class part of framework object `hvid`, which must be of class
// `cls.structure` or inherit it; another object is refused naming
// `cls.class_name`, so that no class's fixed positions are applied to a
// smaller object.  Inline: every step of a dispatch locates an object.
inline ClassPart fw_classPart(QVA_HVID hvid, FwClass &cls) {
  QVA_HVPTR hv = QVA_HeapVarFind(hvid);
  if (__builtin_expect(hv && (hv->flags & QVA_HV_OBJECT) && (hv->var.flags & QVA_V_STRUCT), 1)) {
    QVA_SDEF sdef = hv->var.value.s.sdef;
    for (int i = 0; i < FwClass::kRemembered; ++i)
      if (cls.passed[i] == sdef && sdef)
        return ClassPart{QVA_HeapVarStructData(hv) + cls.offset[i], hvid};
  }
  return fw_classPartChecked(hvid, cls);
}

// Makes an object of the class whose structure is `structure`, with zeroed
// data and without running any INIT; its heap identifier.
QVA_HVID fw_newObject(const char *structure);

// The first field of each root structure, where its data block begins.
inline constexpr const char *FW_SAVEABLE_TOP_FIELD = "QVAFWSAVEABLE_TOP";
inline constexpr const char *FW_DSMAP_TOP_FIELD = "QVADSMAP_VERSION";

// Per class: locate by heap identifier and by object reference variable,
// and the upcast to the superclass (the class part unchanged).
SaveableData *Saveable_from_hvid(QVA_HVID hvid);
SaveableData *Saveable_from_vptr(QVA_VPTR v);

ClassPart HasAHandler_from_hvid(QVA_HVID hvid);
ClassPart HasAHandler_from_vptr(QVA_VPTR v);
SaveableData *Saveable_from_HasAHandler(ClassPart part);

ClassPart Message_from_hvid(QVA_HVID hvid);
ClassPart Message_from_vptr(QVA_VPTR v);
ClassPart HasAHandler_from_Message(ClassPart part);

ClassPart Query_from_hvid(QVA_HVID hvid);
ClassPart Query_from_vptr(QVA_VPTR v);
ClassPart Message_from_Query(ClassPart part);

ClassPart MessageHandler_from_hvid(QVA_HVID hvid);
ClassPart MessageHandler_from_vptr(QVA_VPTR v);
ClassPart HasAHandler_from_MessageHandler(ClassPart part);

ClassPart Behavior_from_hvid(QVA_HVID hvid);
ClassPart Behavior_from_vptr(QVA_VPTR v);
ClassPart HasAHandler_from_Behavior(ClassPart part);

ClassPart ObjBehav_from_hvid(QVA_HVID hvid);
ClassPart ObjBehav_from_vptr(QVA_VPTR v);
ClassPart Behavior_from_ObjBehav(ClassPart part);

ClassPart ProcBehav_from_hvid(QVA_HVID hvid);
ClassPart ProcBehav_from_vptr(QVA_VPTR v);
ClassPart Behavior_from_ProcBehav(ClassPart part);

ClassPart FuncBehav_from_hvid(QVA_HVID hvid);
ClassPart FuncBehav_from_vptr(QVA_VPTR v);
ClassPart Behavior_from_FuncBehav(ClassPart part);

ClassPart QueryBehav_from_hvid(QVA_HVID hvid);
ClassPart QueryBehav_from_vptr(QVA_VPTR v);
ClassPart Behavior_from_QueryBehav(ClassPart part);

ClassPart DelayBehav_from_hvid(QVA_HVID hvid);
ClassPart DelayBehav_from_vptr(QVA_VPTR v);
ClassPart Behavior_from_DelayBehav(ClassPart part);

ClassPart DelayArgBehav_from_hvid(QVA_HVID hvid);
ClassPart DelayArgBehav_from_vptr(QVA_VPTR v);
ClassPart DelayBehav_from_DelayArgBehav(ClassPart part);

ClassPart DSMap_from_hvid(QVA_HVID hvid);
ClassPart DSMap_from_vptr(QVA_VPTR v);
