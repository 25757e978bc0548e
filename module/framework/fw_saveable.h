// fw_saveable.h - QVAfwSaveable: the root of the framework classes, with the
// restored marker and the restore protocol every class follows.
#pragma once

#include <qva/qva.h>

#include "frame/fw_class.h"

QVA_SDEF QVAfwSaveableStartup(void);

// Internal operations; they take the address of the framework data alone.
int saveable_init(SaveableData *a);
void saveable_cleanup(SaveableData *a);
// Raises a version of 0 or less to 1 and marks the object restored.
void saveable_restore(SaveableData *a);
void saveable_setRestored(SaveableData *a, int flag);
int saveable_isRestored(const SaveableData *a);
// Runs the RESTORE method of object `id` (whose data is `a`) unless it is
// marked restored already.
void saveable_doRestore(SaveableData *a, QVA_HVID id);

// Registered routines.
QVA_VPTR QVA_fwSaveable_Init(int argc, QVA_VPTR argv[]);
void QVA_fwSaveable_Cleanup(int argc, QVA_VPTR argv[]);
void QVA_fwSaveable_DoRestore(int argc, QVA_VPTR argv[]);
void QVA_fwSaveable_ResetRestored(int argc, QVA_VPTR argv[]);
void QVA_fwSaveable_Restore(int argc, QVA_VPTR argv[]);
void QVA_fwSaveable_RestoreArray(int argc, QVA_VPTR argv[]);
