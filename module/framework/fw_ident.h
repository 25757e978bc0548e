// fw_ident.h - the identifier service: message strings interned once per
// session into identifier heap variables, with reference counts.
//
// An identifier is a pointer heap variable (flagged QVA_HV_HELD) holding
// the interned text; framework fields hold its heap identifier.  Two
// module-wide maps, made on first use and never saved with a session:
//   the identifier list: text (an owned 12-byte key) -> record {hvid, count}
//   the garbage list:    hvid of a stale identifier from a restored session -> 0
#pragma once

#include <qva/qva.h>

// Interns the text (if needed) and counts one more holder.
QVA_HVID fwIdent_get(const QVA_STRING *s);
// This session's identifier for the text a (possibly stale) identifier
// holds; 0 when it names nothing usable.  Counts one holder of the result,
// also when `id` is already this session's: a field restored twice in one
// session then holds two references (the count only guards collection).
QVA_HVID fwIdent_rollover(QVA_HVID id);
void fwIdent_acquireHVID(QVA_HVID id);
// Makes an identifier field name the text `s`: the reference the field
// held (if any) is given back and one is taken on the new identifier.
void fwIdent_setField(QVA_HVID *field, const QVA_STRING *s);
// 1 when `id` names an identifier heap variable (of this session or a
// stale one from a restored session), else 0.
int fwIdent_isIdentifier(QVA_HVID id);
void fwIdent_releaseHVID(QVA_HVID id);
// Deletes stale identifiers and those nobody holds; with full, all.
void fwIdent_garbageCollect(int full);

// Registered routines.
QVA_VPTR QVA_fwIdent_getIdent(int argc, QVA_VPTR argv[]);
QVA_VPTR QVA_fwIdent_rolloverIdent(int argc, QVA_VPTR argv[]);
void QVA_fwIdent_acquire(int argc, QVA_VPTR argv[]);
void QVA_fwIdent_release(int argc, QVA_VPTR argv[]);
void QVA_fwIdent_garbageCollection(int argc, QVA_VPTR argv[]);
