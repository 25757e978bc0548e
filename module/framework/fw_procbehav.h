// fw_procbehav.h - QVAfwProcBehav (structure QVAFWPROCBEHAV).
//
// A behaviour that calls a procedure by name.
#pragma once

#include <qva/qva.h>

#include "frame/fw_class.h"

QVA_SDEF QVAfwProcBehavStartup(void);

// Keywords of QVAFWPROCBEHAV::INIT.
extern QVA_KW_PAR procBehav_Keywords[];
