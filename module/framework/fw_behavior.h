// fw_behavior.h - QVAfwBehavior (structure QVAFWBEHAVIOR).
//
// What runs when a message arrives at the handler where the behaviour is
// registered.
#pragma once

#include <qva/qva.h>

#include "frame/fw_class.h"

QVA_SDEF QVAfwBehaviorStartup(void);

// Keywords of QVAFWBEHAVIOR::INIT.
extern QVA_KW_PAR behavior_Keywords[];
