// fw_message.h - QVAfwMessage (structure QVAFWMESSAGE).
//
// A named event sent to a message handler.
#pragma once

#include <qva/qva.h>

#include "frame/fw_class.h"

QVA_SDEF QVAfwMessageStartup(void);

// Keywords of QVAFWMESSAGE::INIT.
extern QVA_KW_PAR message_Keywords[];
