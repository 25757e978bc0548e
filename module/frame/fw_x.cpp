// fw_x.cpp - start-up and session reset of the framework classes.
#include "frame/fw_x.h"

#include "framework/fw_behavior.h"
#include "framework/fw_delayargbehav.h"
#include "framework/fw_delaybehav.h"
#include "framework/fw_funcbehav.h"
#include "framework/fw_hashndlr.h"
#include "framework/fw_ident.h"
#include "framework/fw_message.h"
#include "framework/fw_messhndlr.h"
#include "framework/fw_objbehav.h"
#include "framework/fw_procbehav.h"
#include "framework/fw_query.h"
#include "framework/fw_querybehav.h"
#include "framework/fw_saveable.h"

void QVA_fwObjsInit(void) {
  // A subclass's tag table names its superclass, which must exist already.
  QVAfwSaveableStartup();
  QVAfwHasAHandlerStartup();
  QVAfwMessageStartup();
  QVAfwQueryStartup();
  QVAfwBehaviorStartup();
  QVAfwProcBehavStartup();
  QVAfwFuncBehavStartup();
  QVAfwObjBehavStartup();
  QVAfwQueryBehavStartup();
  QVAfwDelayBehavStartup();
  QVAfwDelayArgBehavStartup();
  QVAfwMessageHandlerStartup();
}

void QVA_FwObjsResetSession(void) {
  // The session's heap variables are gone, so what the framework remembers
  // about them must go too.
  // 1. Every interned identifier, whatever its count, and every stale one.
  fwIdent_garbageCollect(1);
  // 2. The top-level handler: the next request makes a new one.
  QVA_fwMessagehandler_RstTopLev();
  messagehandler_forgetRetired();
}
