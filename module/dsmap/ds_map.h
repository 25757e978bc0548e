// ds_map.h - QVAdsMap (structure QVADSMAP).
//
// An ordered map from strings to arbitrary language values, held in a heap
// map so that it is saved and restored with the session.
#pragma once

#include <qva/qva.h>

#include "frame/fw_class.h"

QVA_SDEF QVAdsMapStartup(void);

// Internal operations (class part: the QVADSMAP_VERSION address and hvid).
int dsMap_init(ClassPart m);
void dsMap_cleanup(ClassPart m);
int dsMap_keyExists(ClassPart m, QVA_VPTR key);
void dsMap_insert(ClassPart m, QVA_VPTR key, QVA_VPTR value);
void dsMap_remove(ClassPart m, QVA_VPTR key);
QVA_VPTR dsMap_keys(ClassPart m);
QVA_VPTR dsMap_data(ClassPart m, QVA_VPTR key);
int dsMap_size(ClassPart m);

// Registered routines (the object is argument 0).
QVA_VPTR QVA_dsMap_Init(int argc, QVA_VPTR argv[]);
void QVA_dsMap_Cleanup(int argc, QVA_VPTR argv[]);
QVA_VPTR QVA_dsMap_KeyExists(int argc, QVA_VPTR argv[]);
void QVA_dsMap_Insert(int argc, QVA_VPTR argv[]);
void QVA_dsMap_Remove(int argc, QVA_VPTR argv[]);
QVA_VPTR QVA_dsMap_GetKeys(int argc, QVA_VPTR argv[]);
QVA_VPTR QVA_dsMap_GetData(int argc, QVA_VPTR argv[]);
QVA_VPTR QVA_dsMap_GetSize(int argc, QVA_VPTR argv[]);
