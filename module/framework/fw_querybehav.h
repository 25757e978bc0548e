// fw_querybehav.h - QVAfwQueryBehav (structure QVAFWQUERYBEHAV).
//
// A behaviour that answers a query.
#pragma once

#include <qva/qva.h>

#include "frame/fw_class.h"

QVA_SDEF QVAfwQueryBehavStartup(void);

// Keywords of QVAFWQUERYBEHAV::INIT.
extern QVA_KW_PAR queryBehav_Keywords[];
