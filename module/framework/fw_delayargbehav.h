// fw_delayargbehav.h - QVAfwDelayArgBehav (structure QVAFWDELAYARGBEHAV).
//
// A delayed behaviour that keeps the largest integer argument it received.
#pragma once

#include <qva/qva.h>

#include "frame/fw_class.h"

QVA_SDEF QVAfwDelayArgBehavStartup(void);

// Keywords of QVAFWDELAYARGBEHAV::INIT.
extern QVA_KW_PAR delayArgBehav_Keywords[];
