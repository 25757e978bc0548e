// qva_cobalt_rtn_tbl.cpp - the routines the module registers, one table of
// functions and one of procedures, each in ascending character order of
// the names (':' sorts before letters).  A name CLASS::METHOD registers a
// method of that class.
#include "frame/qva_cobalt_rtn_tbl.h"

#include <iterator>

#include "framework/fw_saveable.h"

QVA_SYSFUN_DEF function_addr[] = {
    {QVA_RTN(QVA_fwSaveable_Init), "QVAFWSAVEABLE::INIT", 1, 1, 0, 0},
};

QVA_SYSFUN_DEF procedure_addr[] = {
    {QVA_RTN(QVA_fwSaveable_Cleanup), "QVAFWSAVEABLE::CLEANUP", 1, 1, 0, 0},
    {QVA_RTN(QVA_fwSaveable_DoRestore), "QVAFWSAVEABLE::DORESTORE", 1, 1, 0, 0},
    {QVA_RTN(QVA_fwSaveable_ResetRestored), "QVAFWSAVEABLE::RESETRESTORED", 1, 1, 0, 0},
    {QVA_RTN(QVA_fwSaveable_Restore), "QVAFWSAVEABLE::RESTORE", 1, 1, 0, 0},
    {QVA_RTN(QVA_fwSaveable_RestoreArray), "QVAFWSAVEABLERESTOREARRAY", 1, 1, 0, 0},
};

const int function_addr_count = static_cast<int>(std::size(function_addr));
const int procedure_addr_count = static_cast<int>(std::size(procedure_addr));
