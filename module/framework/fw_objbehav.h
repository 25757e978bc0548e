// fw_objbehav.h - QVAfwObjBehav (structure QVAFWOBJBEHAV).
//
// A behaviour that calls a method of an object.
#pragma once

#include <qva/qva.h>

#include "frame/fw_class.h"

QVA_SDEF QVAfwObjBehavStartup(void);

// Keywords of QVAFWOBJBEHAV::INIT.
extern QVA_KW_PAR objBehav_Keywords[];
