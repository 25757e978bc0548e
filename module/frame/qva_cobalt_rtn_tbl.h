// qva_cobalt_rtn_tbl.h - the module's routine tables.
#pragma once

#include <qva/qva.h>

// Rows in ascending character order of their names.
extern QVA_SYSFUN_DEF function_addr[];
extern const int function_addr_count;
extern QVA_SYSFUN_DEF procedure_addr[];
extern const int procedure_addr_count;
