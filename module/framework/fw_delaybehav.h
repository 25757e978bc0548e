// fw_delaybehav.h - QVAfwDelayBehav (structure QVAFWDELAYBEHAV).
//
// A behaviour that defers a method call until a second message arrives.
#pragma once

#include <qva/qva.h>

#include "frame/fw_class.h"

QVA_SDEF QVAfwDelayBehavStartup(void);

// Keywords of QVAFWDELAYBEHAV::INIT.
extern QVA_KW_PAR delayBehav_Keywords[];
