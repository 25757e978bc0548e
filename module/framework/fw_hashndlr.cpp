// fw_hashndlr.cpp - QVAfwHasAHandler (structure QVAFWHASAHANDLER).
//
// The link from a message, behaviour or message handler to its parent
// message handler.
#include "framework/fw_hashndlr.h"

#include <cstdlib>

#include "framework/fw_messhndlr.h"
#include "framework/fw_saveable.h"

static QVA_STRUCT_TAG_DEF hasahandler_Tags[] = {
    {"QVAFWSAVEABLE", nullptr, 0, QVA_STD_INHERIT},
    {"HASAHANDLER_VERSION", nullptr, QVA_TYP_LONG, 0},
    {"MYHANDLER", nullptr, QVA_TYP_OBJREF, 0},
    {nullptr, nullptr, 0, 0},
};

QVA_KW_PAR hasahandler_Keywords[] = {
    FW_KW_FIRST,
    FW_KW_HANDLER,
    FW_KW_END,
};

QVA_SDEF QVAfwHasAHandlerStartup(void) {
  return QVA_MakeStructInternal("QVAFWHASAHANDLER", QVA_SDEF_REUSE, hasahandler_Tags, 0);
}

// ------------------------------------------------------------ locating

static FwClass hasAHandlerClass{"QVAFWHASAHANDLER", "QVAfwHasAHandler", {}, {}, 0};

ClassPart HasAHandler_from_hvid(QVA_HVID hvid) { return fw_classPart(hvid, hasAHandlerClass); }

ClassPart HasAHandler_from_vptr(QVA_VPTR v) { return HasAHandler_from_hvid(fw_objrefOf(v)); }

SaveableData *Saveable_from_HasAHandler(ClassPart part) {
  return static_cast<SaveableData *>(part.data);
}

// ------------------------------------------------- internal operations

namespace {

void linkHandler(ClassPart part, QVA_HVID h, bool may_have_children);

// Whether the object's data is still as the host made it: never
// initialised, so that no object can have been linked below it yet.
bool neverInitialised(ClassPart part) {
  const HasAHandlerData *d = hasahandler_data(part);
  return d->saveable.version == 0 && d->version == 0 && d->myhandler == 0;
}

}  // namespace

int hasahandler_init(ClassPart part, FwKeywordFields *kw) {
  bool fresh = neverInitialised(part);
  if (!saveable_init(Saveable_from_HasAHandler(part))) return 0;
  HasAHandlerData *d = hasahandler_data(part);
  d->myhandler = 0;
  d->version = 1;
  // A new object has nothing below it, so its link cannot close a cycle and
  // the chain above need not be walked: building a chain top-down stays
  // linear.  An INIT run again on a live object is checked in full.
  if (kw && kw->handler_given) linkHandler(part, kw->handler, !fresh);
  return 1;
}

void handlerChain_loops(QVA_HVID handler) {
  QVA_Message(QVA_M_GENERIC, QVA_MSG_LONGJMP,
              "The handler chain loops: handler <ObjHeapVar%u> is its own ancestor.", handler);
  std::abort();  // action 2 never returns
}

namespace {

// The parent a handler's messages climb to: its explicit link, else the
// top-level handler if there is one (none is made here), else 0.
QVA_HVID parentForWalk(QVA_HVID handler) {
  QVA_HVPTR hv = QVA_ObjValidate(handler, QVA_MSG_RET);
  if (!hv) return 0;  // a dead link ends the chain
  QVA_HVID up = hasahandler_data(HasAHandler_from_hvid(handler))->myhandler;
  if (up && !messagehandler_retiredTopLevel(up)) return up;
  if (amITopLevel(handler)) return 0;
  return currentTopLevelHandler();
}

// Whether `self` lies on the chain that starts at handler `h`, i.e. whether
// linking self to h would make the chain climb forever.  A chain above h
// that already loops is reported as such.
bool closesCycle(QVA_HVID self, QVA_HVID h) {
  HandlerChainGuard guard;
  for (QVA_HVID at = h; at; at = parentForWalk(at)) {
    if (at == self) return true;
    handlerChain_visit(&guard, at);
  }
  return false;
}

void linkHandler(ClassPart part, QVA_HVID h, bool may_have_children) {
  if (h == 0) {
    hasahandler_data(part)->myhandler = 0;
    return;
  }
  QVA_HVPTR hv = QVA_ObjValidate(h, QVA_MSG_LONGJMP);
  if (!(hv->var.flags & QVA_V_STRUCT) ||
      !QVA_ObjContainsClassByStr(hv->var.value.s.sdef, "QVAFWMESSAGEHANDLER", 0, 0,
                                 QVA_MSG_LONGJMP))
    QVA_Message(QVA_M_NOT_OF_CLASS, QVA_MSG_LONGJMP, "1", "QVAfwMessageHandler");
  if (h == part.hvid || (may_have_children && closesCycle(part.hvid, h)))
    QVA_Message(QVA_M_GENERIC, QVA_MSG_LONGJMP,
                "Handler <ObjHeapVar%u> lies below <ObjHeapVar%u>: linking them would make a cycle "
                "in the handler chain.",
                h, part.hvid);
  hasahandler_data(part)->myhandler = h;
}

}  // namespace

void hasahandler_setHandler(ClassPart part, QVA_HVID h) { linkHandler(part, h, true); }

QVA_HVID hasahandler_handler(ClassPart part) {
  QVA_HVID h = hasahandler_data(part)->myhandler;
  // A link to a top-level handler that has since retired (scoping elsewhere
  // moved its last behaviour away) is read afresh: it meant the top-level
  // handler, and the walk goes on to the current one.
  if (h && !messagehandler_retiredTopLevel(h)) return h;
  if (amITopLevel(part.hvid)) return 0;
  return TopLevelMessageHandler();
}

void hasahandler_cleanup(ClassPart part) { saveable_cleanup(Saveable_from_HasAHandler(part)); }

void hasahandler_restore(ClassPart part) {
  saveable_restore(Saveable_from_HasAHandler(part));
  HasAHandlerData *d = hasahandler_data(part);
  if (d->version <= 0) d->version = 1;
}

// ------------------------------------------------- registered routines

QVA_VPTR QVA_fwHasAHandler_Init(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
  return fw_initWithKeywords(argc, argv, argk, hasahandler_Keywords, HasAHandler_from_vptr,
                             hasahandler_init);
}

QVA_VPTR QVA_fwHasAHandler_Handler(int, QVA_VPTR argv[]) {
  return fw_objrefTemp(hasahandler_handler(HasAHandler_from_vptr(argv[0])));
}

void QVA_fwHasAHandler_SetHandler(int, QVA_VPTR argv[]) {
  if (argv[1]->type != QVA_TYP_OBJREF)
    QVA_Message(QVA_M_OBJREF_REQUIRED, QVA_MSG_LONGJMP, "QVAfwHasAHandler::SetHandler");
  QVA_HVID h = fw_objrefOf(argv[1]);
  hasahandler_setHandler(HasAHandler_from_vptr(argv[0]), h);
}

void QVA_fwHasAHandler_Cleanup(int, QVA_VPTR argv[]) {
  hasahandler_cleanup(HasAHandler_from_vptr(argv[0]));
}

void QVA_fwHasAHandler_Restore(int, QVA_VPTR argv[]) {
  hasahandler_restore(HasAHandler_from_vptr(argv[0]));
}
