// fw_messhndlr.h - QVAfwMessageHandler (structure QVAFWMESSAGEHANDLER).
//
// Dispatches messages to the behaviours registered for them.
#pragma once

#include <qva/qva.h>

#include "frame/fw_class.h"

QVA_SDEF QVAfwMessageHandlerStartup(void);

// Keywords of QVAFWMESSAGEHANDLER::INIT.
extern QVA_KW_PAR messageHandler_Keywords[];
