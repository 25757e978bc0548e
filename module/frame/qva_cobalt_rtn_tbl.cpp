// qva_cobalt_rtn_tbl.cpp - the routines the module registers, one table of
// functions and one of procedures, each in ascending character order of
// the names (':' sorts before letters).  A name CLASS::METHOD registers a
// method of that class.
#include "frame/qva_cobalt_rtn_tbl.h"

#include <iterator>

#include "dsmap/ds_map.h"
#include "framework/fw_ident.h"
#include "framework/fw_saveable.h"

QVA_SYSFUN_DEF function_addr[] = {
    {QVA_RTN(QVA_fwIdent_getIdent), "GET_FWIDENT", 1, 1, 0, 0},
    {QVA_RTN(QVA_dsMap_GetData), "QVADSMAP::GETDATA", 2, 2, 0, 0},
    {QVA_RTN(QVA_dsMap_GetKeys), "QVADSMAP::GETKEYS", 1, 2, 0, 0},
    {QVA_RTN(QVA_dsMap_GetSize), "QVADSMAP::GETSIZE", 1, 1, 0, 0},
    {QVA_RTN(QVA_dsMap_Init), "QVADSMAP::INIT", 1, 1, 0, 0},
    {QVA_RTN(QVA_dsMap_KeyExists), "QVADSMAP::KEYEXISTS", 2, 2, 0, 0},
    {QVA_RTN(QVA_fwSaveable_Init), "QVAFWSAVEABLE::INIT", 1, 1, 0, 0},
    {QVA_RTN(QVA_fwIdent_rolloverIdent), "ROLLOVER_FWIDENT", 1, 1, 0, 0},
};

QVA_SYSFUN_DEF procedure_addr[] = {
    {QVA_RTN(QVA_fwIdent_acquire), "FWIDENT_ACQUIRE", 1, 1, 0, 0},
    {QVA_RTN(QVA_fwIdent_garbageCollection), "FWIDENT_GC", 0, 1, 0, 0},
    {QVA_RTN(QVA_fwIdent_release), "FWIDENT_RELEASE", 1, 1, 0, 0},
    {QVA_RTN(QVA_dsMap_Cleanup), "QVADSMAP::CLEANUP", 1, 1, 0, 0},
    {QVA_RTN(QVA_dsMap_Insert), "QVADSMAP::INSERT", 3, 3, 0, 0},
    {QVA_RTN(QVA_dsMap_Remove), "QVADSMAP::REMOVE", 2, 2, 0, 0},
    {QVA_RTN(QVA_fwSaveable_Cleanup), "QVAFWSAVEABLE::CLEANUP", 1, 1, 0, 0},
    {QVA_RTN(QVA_fwSaveable_DoRestore), "QVAFWSAVEABLE::DORESTORE", 1, 1, 0, 0},
    {QVA_RTN(QVA_fwSaveable_ResetRestored), "QVAFWSAVEABLE::RESETRESTORED", 1, 1, 0, 0},
    {QVA_RTN(QVA_fwSaveable_Restore), "QVAFWSAVEABLE::RESTORE", 1, 1, 0, 0},
    {QVA_RTN(QVA_fwSaveable_RestoreArray), "QVAFWSAVEABLERESTOREARRAY", 1, 1, 0, 0},
};

const int function_addr_count = static_cast<int>(std::size(function_addr));
const int procedure_addr_count = static_cast<int>(std::size(procedure_addr));
