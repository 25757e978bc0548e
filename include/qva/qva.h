/*
 * qva.h - the QVA host interface for native extension modules.
 *
 * This header is the whole door between an extension module and the QVA
 * host: the host's types (variables, string descriptors, heap variables,
 * table rows) and the QVA_* operations.  A module includes nothing else of
 * the host.
 *
 * Error actions.  Operations that take an `action` argument report problems
 * according to it: QVA_MSG_RET reports (prints) and returns; QVA_MSG_LONGJMP
 * reports and abandons the routine the language called.  Abandoning unwinds
 * the C++ stack as a host exception up to the place where the host called
 * that routine; nothing after such a call runs, so module code must be
 * written so that an unwind at any host call leaks nothing it owns.
 * Temporaries made during an abandoned routine are released by the host.
 */
#ifndef QVA_QVA_H
#define QVA_QVA_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---------------------------------------------------------------- types */

typedef unsigned char QVA_UCHAR;
typedef int16_t QVA_INT;
typedef int32_t QVA_LONG;
typedef int64_t QVA_LONG64;
typedef int64_t QVA_MEMINT;  /* element counts and byte lengths */
typedef uint32_t QVA_HVID;   /* heap variable identifier; 0 = none */
typedef uint32_t QVA_IDENT;  /* interned name; 0 = none */

/* Type codes, as stored in a variable's type byte and in table rows. */
#define QVA_TYP_UNDEF 0
#define QVA_TYP_BYTE 1
#define QVA_TYP_INT 2
#define QVA_TYP_LONG 3
#define QVA_TYP_FLOAT 4
#define QVA_TYP_DOUBLE 5
#define QVA_TYP_STRING 7
#define QVA_TYP_STRUCT 8
#define QVA_TYP_PTR 10
#define QVA_TYP_OBJREF 11
#define QVA_TYP_LONG64 14
#define QVA_MAX_TYPE 15

/* Variable flags (the flags byte of a variable). */
#define QVA_V_CONST 0x01
#define QVA_V_TEMP 0x02
#define QVA_V_ARR 0x04
#define QVA_V_FILE 0x08
#define QVA_V_DYNAMIC 0x10
#define QVA_V_STRUCT 0x20
/* Any of these bits: the value is not a scalar. */
#define QVA_V_NOT_SCALAR (QVA_V_ARR | QVA_V_FILE | QVA_V_STRUCT)

/*
 * String descriptor: exactly 12 bytes.  `s` is a host-owned text reference
 * (0 for the empty string), resolved with QVA_STRING_STR.  Copying a
 * descriptor by value shares its text; QVA_StrDup gives a descriptor its own
 * copy, QVA_StrDelete releases the text a descriptor owns.
 */
typedef struct QVA_STRING {
  QVA_LONG slen;   /* length in bytes, not counting the terminating NUL */
  QVA_INT stype;   /* host flags; 0 for a descriptor without text */
  QVA_INT reserved;
  uint32_t s;      /* text reference; 0 = empty */
} QVA_STRING;

#define QVA_MAX_ARRAY_DIM 8

/* Array description: data of n_elts elements of elt_len bytes each. */
typedef struct QVA_ARRAY {
  QVA_MEMINT elt_len;
  QVA_MEMINT arr_len;  /* n_elts * elt_len */
  QVA_MEMINT n_elts;
  QVA_UCHAR *data;
  QVA_LONG n_dim;      /* 1..QVA_MAX_ARRAY_DIM */
  QVA_LONG flags;      /* host-private */
  QVA_MEMINT dim[QVA_MAX_ARRAY_DIM];
} QVA_ARRAY;

/* A structure definition (opaque).  A class is a named structure definition. */
typedef struct QVA_STRUCTDEF QVA_STRUCTDEF;
typedef QVA_STRUCTDEF *QVA_SDEF;

typedef union QVA_ALLTYPES {
  QVA_UCHAR c;
  QVA_INT i;
  QVA_LONG l;
  float f;
  double d;
  QVA_LONG64 l64;
  QVA_HVID hvid;        /* QVA_TYP_PTR and QVA_TYP_OBJREF */
  QVA_STRING str;
  QVA_ARRAY *arr;       /* flags has QVA_V_ARR (not a structure) */
  struct {
    QVA_ARRAY *arr;     /* the elements' data */
    QVA_SDEF sdef;      /* their definition */
  } s;                  /* flags has QVA_V_STRUCT (and QVA_V_ARR) */
} QVA_ALLTYPES;

/* A host variable: type code, flags and value. */
typedef struct QVA_VARIABLE {
  QVA_UCHAR type;
  QVA_UCHAR flags;
  QVA_UCHAR flags2;  /* host-private */
  QVA_UCHAR reserved;
  QVA_IDENT name;    /* the variable's name, or 0 for an expression value */
  QVA_ALLTYPES value;
} QVA_VARIABLE;
typedef QVA_VARIABLE *QVA_VPTR;

/* Heap variable flags word. */
#define QVA_HV_OBJECT 0x01  /* an object (its value is the instance) */
#define QVA_HV_HELD 0x40    /* held by a module: heap GC never frees it */

/* A heap variable whose value is one structure element of at most
 * QVA_HV_INLINE_BYTES keeps that element's data in its record (`idata`)
 * instead of behind an array descriptor; its var.flags2 is then
 * QVA_V2_INLINE.  A tree node or a small object so costs one record and one
 * cache line, and reaching its data is no further load.  var.value.s.arr of
 * such a variable is host business (null until some host path needs a
 * descriptor): read the data with QVA_HeapVarStructData. */
#define QVA_HV_INLINE_BYTES 32
#define QVA_V2_INLINE 0x5C

/* The record of a heap variable or object. */
typedef struct QVA_HEAP_VAR {
  QVA_HVID hash_id;  /* its heap identifier */
  uint32_t flags;    /* QVA_HV_*; bits not named here are the host's */
  QVA_VARIABLE var;  /* its value; for an object, a one-element structure */
  QVA_UCHAR idata[QVA_HV_INLINE_BYTES]; /* the element, when var.flags2 is QVA_V2_INLINE */
} QVA_HEAP_VAR;
typedef QVA_HEAP_VAR *QVA_HVPTR;

/* The data of the first element of the structure a heap variable holds
 * (var.flags has QVA_V_STRUCT): in its record, or behind its descriptor.
 * The address stays valid while the variable holds that value. */
static inline QVA_UCHAR *QVA_HeapVarStructData(QVA_HVPTR hv) {
  return hv->var.flags2 == QVA_V2_INLINE ? hv->idata : hv->var.value.s.arr->data;
}
/* Whether a heap variable holding a structure holds exactly one element. */
static inline int QVA_HeapVarStructIsOne(QVA_HVPTR hv) {
  return hv->var.flags2 == QVA_V2_INLINE || (hv->var.value.s.arr && hv->var.value.s.arr->n_elts == 1);
}

/*
 * The heap table, published so that a module can look records up inline
 * (QVA_HeapVarFind) instead of calling the host.  Its rules:
 *  - Identifier id names the record at index id % QVA_HEAP_PAGE_SIZE of
 *    the page QVA_HeapPages[id / QVA_HEAP_PAGE_SIZE].  The directory has
 *    an entry for every 32-bit identifier, so no identifier indexes past
 *    it; an entry is NULL when no record of its range exists.
 *  - A page is an array of QVA_HEAP_PAGE_SIZE records (64 bytes each, so
 *    one to a cache line) with nothing between them.
 *  - A record is live exactly when its hash_id equals its identifier; a
 *    dead record's hash_id is 0, and identifier 0 is never issued.
 *  - A live record stays where it is until it is deleted.
 *  - Identifiers are never reused within a process.
 * The table is the host's: modules read it and never write to it.
 */
#define QVA_HEAP_PAGE_BITS 8
#define QVA_HEAP_PAGE_SIZE (1u << QVA_HEAP_PAGE_BITS)
extern QVA_HEAP_VAR *const *const QVA_HeapPages;

/* The record slot of hvid, live or dead, or NULL when no page holds it.
 * Safe to read for any hvid; whether it is hvid's is QVA_HeapVarFind's test. */
static inline QVA_HEAP_VAR *QVA_HeapVarSlot(QVA_HVID hvid) {
  QVA_HEAP_VAR *page = QVA_HeapPages[hvid >> QVA_HEAP_PAGE_BITS];
  return page ? page + (hvid & (QVA_HEAP_PAGE_SIZE - 1)) : NULL;
}

/* The record named by hvid, or NULL when hvid names no heap variable (as
 * QVA_HeapVarHashFind). */
static inline QVA_HVPTR QVA_HeapVarFind(QVA_HVID hvid) {
  QVA_HEAP_VAR *rec = QVA_HeapVarSlot(hvid);
  return rec && rec->hash_id == hvid && hvid != 0 ? rec : NULL;
}

/* ------------------------------------------------------------ messages */

#define QVA_MSG_RET 0      /* report and return */
#define QVA_MSG_LONGJMP 2  /* report and abandon the routine */
#define QVA_MSG_INFO 4     /* informational: print and return */

/* Host message codes. */
#define QVA_M_GENERIC (-3)          /* args: printf format, its arguments */
#define QVA_M_WRONG_TYPE (-204)     /* args: routine name */
#define QVA_M_NOT_OF_CLASS (-569)   /* args: which argument, class name */
#define QVA_M_OBJREF_REQUIRED (-794)/* args: routine name */

void QVA_Message(int code, int action, ...);
void QVA_MessageVE_REQSTR(QVA_VPTR v, int action);
void QVA_MessageVE_REQPTR(QVA_VPTR v, int action);
void QVA_MessageVE_REQOBJREF(QVA_VPTR v, int action);
void QVA_MessageVE_NOTSCALAR(QVA_VPTR v, int action);

/* A module's own messages: row i of the table is raised with code -i. */
typedef struct QVA_MSG_DEF {
  const char *name;
  const char *format;
} QVA_MSG_DEF;
typedef struct QVA_MSG_BLOCK_S *QVA_MSG_BLOCK;

QVA_MSG_BLOCK QVA_MessageDefineBlock(const char *name, int n, QVA_MSG_DEF *defs);
void QVA_MessageFromBlock(QVA_MSG_BLOCK block, int code, int action, ...);

/* -------------------------------------------------------------- memory */

/* Reports exhaustion as an error naming `label` and does not return. */
void *QVA_MemAllocMSG_LONGJMP(size_t size, const char *label);
/* Returns NULL, with no message, when memory runs out. */
void *QVA_MemAllocQuiet(size_t size);
void QVA_MemFreeQuiet(void *p);
void QVA_MemFreeMSG_RET(void *p, const char *label);
void QVA_MemFreeMSG_INFO(void *p, const char *label);

/* ------------------------------------------------------------- strings */

const char *QVA_STRING_STR(const QVA_STRING *s);
/* Byte-wise comparison (unsigned bytes, then length): -1, 0 or 1. */
int QVA_StrCmp(const QVA_STRING *a, const QVA_STRING *b);

/*
 * The text table, published so that a module can read a text inline
 * (QVA_StrText) where it reads many, as a key compared on every level of a
 * tree walk.  Its rules:
 *  - A text reference r (QVA_STRING.s) names slot (r & QVA_TEXT_INDEX_MASK)
 *    - 1 of generation r >> QVA_TEXT_INDEX_BITS; r == 0 names no text (the
 *    empty string).
 *  - Slot n is QVA_TextPages[n >> QVA_TEXT_PAGE_BITS][n % QVA_TEXT_PAGE_SIZE].
 *    The directory has an entry for every slot number a reference can hold,
 *    NULL where no page has been made; a made page's unused slots are zero.
 *  - A slot holds the text r names exactly when `live` is 1 and `gen`
 *    equals r's generation; the text does not change while it does.
 *  - The text has `len` bytes and a NUL after them: in `small` when len <
 *    QVA_TEXT_SMALL_BYTES, else at `block`.
 * The table is the host's: modules read it and never write to it.
 */
#define QVA_TEXT_INDEX_BITS 24
#define QVA_TEXT_INDEX_MASK ((1u << QVA_TEXT_INDEX_BITS) - 1)
#define QVA_TEXT_PAGE_BITS 12
#define QVA_TEXT_PAGE_SIZE (1u << QVA_TEXT_PAGE_BITS)
#define QVA_TEXT_SMALL_BYTES 24
typedef struct QVA_TEXT_SLOT {
  union {
    char small[QVA_TEXT_SMALL_BYTES]; /* len < QVA_TEXT_SMALL_BYTES: the text */
    char *block;                      /* otherwise: where the text is */
    uint32_t next_free;               /* host business while not live */
  } u;
  uint32_t len;
  uint8_t gen;
  uint8_t live;
  uint16_t holders; /* host business */
} QVA_TEXT_SLOT;
extern QVA_TEXT_SLOT *const *const QVA_TextPages;

/* Byte-wise comparison of two texts (unsigned bytes, then length): -1, 0
 * or 1, as QVA_StrCmp orders them.  Keys are mostly short and share
 * prefixes, so eight bytes are compared at a time in place rather than
 * through a library call. */
static inline int QVA_TextCompare(const char *a, size_t alen, const char *b, size_t blen) {
  size_t n = alen < blen ? alen : blen;
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
  for (; n >= 8; a += 8, b += 8, n -= 8) {
    uint64_t x, y;
    memcpy(&x, a, 8);
    memcpy(&y, b, 8);
    if (x != y) return __builtin_bswap64(x) < __builtin_bswap64(y) ? -1 : 1;
  }
  for (; n; ++a, ++b, --n)
    if (*a != *b) return (unsigned char)*a < (unsigned char)*b ? -1 : 1;
#else
  {
    int c = n ? memcmp(a, b, n) : 0;
    if (c) return c < 0 ? -1 : 1;
  }
#endif
  return alen < blen ? -1 : alen > blen ? 1 : 0;
}

/* The text of s and its length (never more than the text held), as
 * QVA_STRING_STR reads it; NULL when s's reference names no live text (a
 * released or foreign one), which the host functions report: pass such a
 * descriptor to them instead. */
static inline const char *QVA_StrText(const QVA_STRING *s, size_t *len) {
  uint32_t r = s->s;
  *len = 0;
  if (r == 0) return "";
  uint32_t n = (r & QVA_TEXT_INDEX_MASK) - 1;
  if (n == 0xFFFFFFFFu) return NULL;
  const QVA_TEXT_SLOT *page = QVA_TextPages[n >> QVA_TEXT_PAGE_BITS];
  if (!page) return NULL;
  const QVA_TEXT_SLOT *slot = page + (n & (QVA_TEXT_PAGE_SIZE - 1));
  if (!slot->live || slot->gen != (uint8_t)(r >> QVA_TEXT_INDEX_BITS)) return NULL;
  size_t held = s->slen < 0 ? 0 : (size_t)s->slen;
  *len = held < slot->len ? held : slot->len;
  return slot->len < QVA_TEXT_SMALL_BYTES ? slot->u.small : slot->u.block;
}
void QVA_StrDup(QVA_STRING *s, QVA_MEMINT n);
void QVA_StrDelete(QVA_STRING *s, QVA_MEMINT n);
/* Overwrites the descriptor with an owned copy of `text`. */
void QVA_StrStore(QVA_STRING *s, const char *text);
/* A new STRING temporary holding a copy of `text`. */
QVA_VPTR QVA_StrToSTRING(const char *text);

/* ----------------------------------------------- variables, temporaries */

QVA_VPTR QVA_Gettmp(void);
QVA_VPTR QVA_GettmpLong(QVA_LONG value);
void QVA_Deltmp(QVA_VPTR v);
/* A zero-filled (when zero != 0) temporary array; returns its data.  With
 * n == 0, an undefined temporary (the language's !NULL) and NULL data. */
char *QVA_MakeTempVector(int type, QVA_MEMINT n, int zero, QVA_VPTR *var);
char *QVA_MakeTempStructVector(QVA_SDEF sdef, QVA_MEMINT n, QVA_VPTR *var, int zero);
/* The first argument converted to LONG, always as a new temporary. */
QVA_VPTR QVA_CvtLng(int argc, QVA_VPTR argv[]);
/* The destination takes a copy of the source's value; the source is unchanged. */
void QVA_VarCopy(QVA_VPTR src, QVA_VPTR dst);
void QVA_VarCopy_strip(QVA_VPTR src, QVA_VPTR dst, int flags);
/* Element count and data of a variable (a scalar is one element). */
void QVA_VarGetData(QVA_VPTR v, QVA_MEMINT *n, char **data, int ensure_simple);
/* Descriptor of a string variable's first element.  tmp_out receives a
 * conversion temporary (never made: non-strings are refused) and may be 0;
 * with must_be_scalar the variable must hold exactly one element. */
QVA_STRING *QVA_VarGet1EltStringDesc(QVA_VPTR v, QVA_VPTR *tmp_out, int must_be_scalar);
/* Frees the variable's value; the variable becomes undefined. */
void QVA_Delvar(QVA_VPTR v);

/* ------------------------------------------------------------ structures */

/* Structure tag row (also an inheritance row when flags has QVA_STD_INHERIT). */
typedef struct QVA_STRUCT_TAG_DEF {
  const char *name;   /* NULL ends the table */
  QVA_MEMINT *dims;   /* NULL: scalar field */
  QVA_UCHAR type;     /* type code; 0 in an inheritance row */
  QVA_UCHAR flags;
} QVA_STRUCT_TAG_DEF;
#define QVA_STD_INHERIT 1

/* MakeStructInternal flags. */
#define QVA_SDEF_REUSE 0x10   /* an identical existing definition is handed back */
#define QVA_SDEF_HIDDEN 0x20  /* a host-internal structure, not a class */

QVA_SDEF QVA_MakeStructInternal(const char *name, int flags, QVA_STRUCT_TAG_DEF *tags, int action);
/* Address of the named field (inherited fields included) of the first
 * element of the structure held by `sv`; NULL when there is no such field
 * (with action QVA_MSG_LONGJMP, an error instead). */
void *QVA_StructGetTagAddress(QVA_VPTR sv, const char *tag, QVA_MEMINT *offset, QVA_SDEF *tag_sdef, int action);

/* ----------------------------------------------------------------- heap */

/* A new heap variable of type QVA_TYP_PTR (pointer) or QVA_TYP_OBJREF
 * (object) holding src's value.  With steal != 0 and a temporary source the
 * value is moved (the source stays a temporary, now undefined); otherwise it
 * is copied.  NULL on failure with action QVA_MSG_RET. */
QVA_HVPTR QVA_HeapVarNew(int type, QVA_VPTR src, int steal, int action);
/* A new heap variable of type QVA_TYP_PTR or QVA_TYP_OBJREF (sdef then
 * named) holding one zero-filled element of sdef: what QVA_HeapVarNew of a
 * zeroed temporary makes, without the temporary.  The way to make a node or
 * an object.  NULL on failure with action QVA_MSG_RET. */
QVA_HVPTR QVA_HeapVarNewStruct(int type, QVA_SDEF sdef, int action);
/* Constant time; NULL when hvid names no heap variable. */
QVA_HVPTR QVA_HeapVarHashFind(QVA_HVID hvid);
/* Deletes a heap variable or object; never runs CLEANUP. */
void QVA_HeapVarDelete(QVA_HVID hvid, int reserved, int action);

/* ------------------------------------------------ identifiers and objects */

#define QVA_IDENT_USER 1  /* the name came from user data, not from code */
/* The interned identifier of a name (case-insensitive); len 0 means
 * NUL-terminated.  An empty or invalid name yields 0: silently with action
 * QVA_MSG_RET (a look-up that may find nothing), an error with
 * QVA_MSG_LONGJMP. */
QVA_IDENT QVA_IdentHash(const char *name, int len, int flags, int action, int reserved);
const char *QVA_IdentName(QVA_IDENT id);

/* The object named by hvid, or NULL/error when it names no live object. */
QVA_HVPTR QVA_ObjValidate(QVA_HVID hvid, int action);
/* Non-zero when `cls` is the class `name` or inherits from it. */
int QVA_ObjContainsClassByStr(QVA_SDEF cls, const char *name, int reserved1, int reserved2, int action);
/* The structure definition of a class, defining it on first use. */
QVA_SDEF QVA_ObjRuntimeDefine(QVA_IDENT cls);

typedef struct QVA_KW_ARGS QVA_KW_ARGS;  /* keywords of one call (opaque) */

/* As the language's OBJ_NEW: argv[0] is the class name; returns an OBJREF
 * temporary (null reference when INIT returns 0). */
QVA_VPTR QVA_ObjNew(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk);
/* As OBJ_DESTROY: runs CLEANUP, then deletes each object given. */
void QVA_ObjDestroy(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk);
/* Calls method `method` of object `self`, resolved through its class chain.
 * argc/argv are the arguments after self; `result` receives a function
 * method's result (NULL: a procedure method is called).  Returns 1, or 0
 * with action QVA_MSG_RET when there is no such method. */
int QVA_ObjCallMethod(int action, QVA_IDENT method, QVA_HVPTR self, int flags,
                      int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk,
                      QVA_VPTR *result, int reserved);

/* Call record of QVA_InterpCallFromSysproc. */
typedef struct QVA_CALL_RECORD {
  QVA_UCHAR kind;     /* 0 procedure, 1 function */
  QVA_UCHAR one;      /* 1 */
  QVA_UCHAR pad[2];
  QVA_IDENT name;     /* routine name */
  uint32_t zero1;
  QVA_VPTR *args;     /* positional arguments, ended by a NULL entry */
  uint32_t zero2;
} QVA_CALL_RECORD;
/* Calls a procedure or function of the language by name; a function's
 * result is released by the host.  Returns 1. */
int QVA_InterpCallFromSysproc(QVA_CALL_RECORD *rec);

/* --------------------------------------- method calls, fused for dispatch */

/* Calls the procedure method `method` of object `self` with the argc
 * variables of argv (none NULL) as its positional arguments and no
 * keywords: the call, errors and their texts that
 *   QVA_ObjCallMethod(QVA_MSG_LONGJMP, method,
 *                     QVA_ObjValidate(self, QVA_MSG_LONGJMP),
 *                     0, argc, argv, NULL, NULL, 0)
 * makes, in one call into the host, for callers that make many (a message
 * dispatch).  An invalid object or a class without the method ends the
 * calling routine, as any error of the method does. */
void QVA_ObjCallProcMethod(QVA_IDENT method, QVA_HVID self, int argc, QVA_VPTR argv[]);

/* ------------------------------------------------------------- keywords */

typedef struct QVA_KW_PAR {
  const char *keyword;  /* upper case; "" first, NULL ends the table */
  QVA_UCHAR type;
  QVA_UCHAR pad;
  uint16_t mask;
  uint16_t flags;
  uint16_t pad2;
  uint32_t specified;   /* byte position of the LONG "given" flag */
  uint32_t value;       /* byte position of the value */
} QVA_KW_PAR;

#define QVA_KW_ZERO 0x4000   /* value zeroed when the keyword is not given */
#define QVA_KW_OUT 0x1000
#define QVA_KW_VIN 0x2000
/* With type 0: the value position receives the variable given, unconverted. */
#define QVA_KW_BY_VAR (QVA_KW_OUT | QVA_KW_VIN)

/* Fills the keyword record `base`.  plain_args receives the positional
 * arguments; the result is their count.  The LONG at position 0 of the
 * record is set non-zero when QVA_KWFree must be called afterwards. */
int QVA_KWProcessByOffset(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk,
                          QVA_KW_PAR *table, QVA_VPTR plain_args[], int mask, void *base);
void QVA_KWFree(void);

/* ------------------------------------------------------------- routines */

typedef void (*QVA_SYSRTN_GENERIC)(void);
typedef QVA_VPTR (*QVA_SYSRTN_FUN)(int argc, QVA_VPTR argv[]);
typedef QVA_VPTR (*QVA_SYSRTN_FUN_KW)(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk);
typedef void (*QVA_SYSRTN_PRO)(int argc, QVA_VPTR argv[]);
typedef void (*QVA_SYSRTN_PRO_KW)(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk);

#define QVA_SYSFUN_KEYWORDS 2

typedef struct QVA_SYSFUN_DEF {
  QVA_SYSRTN_GENERIC routine;  /* one of the QVA_SYSRTN_* types, cast */
  const char *name;
  uint16_t arg_min;
  uint16_t arg_max;
  uint32_t flags;              /* QVA_SYSFUN_KEYWORDS or 0 */
  uint32_t extra;              /* 0 */
} QVA_SYSFUN_DEF;

#define QVA_RTN(f) ((QVA_SYSRTN_GENERIC)(f))

/* Registers cnt rows; returns 1, or 0 when a row is refused. */
int QVA_SysRtnAdd(QVA_SYSFUN_DEF *defs, int is_function, int cnt);

/* ------------------------------------------------- module entry points */

/* Exported by a module. */
int QVA_Load(void);
void QVA_ResetSession(void);

#ifdef __cplusplus
}
#endif

#endif /* QVA_QVA_H */
