// ds_map.cpp - QVAdsMap (structure QVADSMAP).
//
// The class stands alone: its data block begins at QVADSMAP_VERSION.
#include "dsmap/ds_map.h"

static QVA_STRUCT_TAG_DEF dsMap_Tags[] = {
    {"QVADSMAP_VERSION", nullptr, QVA_TYP_LONG, 0},
    {"THE_MAP", nullptr, QVA_TYP_PTR, 0},
    {nullptr, nullptr, 0, 0},
};

QVA_SDEF QVAdsMapStartup(void) {
  return QVA_MakeStructInternal("QVADSMAP", QVA_SDEF_REUSE, dsMap_Tags, 0);
}

// ------------------------------------------------------------ locating

ClassPart DSMap_from_hvid(QVA_HVID hvid) {
  return ClassPart{fw_locateData(hvid, FW_DSMAP_TOP_FIELD, "QVAdsMap"), hvid};
}

ClassPart DSMap_from_vptr(QVA_VPTR v) { return DSMap_from_hvid(fw_objrefOf(v)); }
