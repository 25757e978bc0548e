// fw_query.h - QVAfwQuery (structure QVAFWQUERY).
//
// A message that collects a result.
#pragma once

#include <qva/qva.h>

#include "frame/fw_class.h"

QVA_SDEF QVAfwQueryStartup(void);

// Keywords of QVAFWQUERY::INIT.
extern QVA_KW_PAR query_Keywords[];
