// fw_hashndlr.h - QVAfwHasAHandler (structure QVAFWHASAHANDLER).
//
// The link from a message, behaviour or message handler to its parent message
// handler.
#pragma once

#include <qva/qva.h>

#include "frame/fw_class.h"

QVA_SDEF QVAfwHasAHandlerStartup(void);

// Keywords of QVAFWHASAHANDLER::INIT.
extern QVA_KW_PAR hasahandler_Keywords[];
