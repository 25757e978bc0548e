// fw_funcbehav.h - QVAfwFuncBehav (structure QVAFWFUNCBEHAV).
//
// A behaviour that calls a function by name.
#pragma once

#include <qva/qva.h>

#include "frame/fw_class.h"

QVA_SDEF QVAfwFuncBehavStartup(void);

// Keywords of QVAFWFUNCBEHAV::INIT.
extern QVA_KW_PAR funcBehav_Keywords[];
