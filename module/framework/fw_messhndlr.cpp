// fw_messhndlr.cpp - QVAfwMessageHandler (structure QVAFWMESSAGEHANDLER).
//
// Dispatch, behaviour registration at handlers, message scoping and the
// top-level handler.  Every upward walk re-reads the chain as it goes,
// because behaviours run during a dispatch, and re-registrations during
// scoping, may change links, lists and even delete the top-level handler;
// a chain that loops (a restored session may hold one) ends with an error.
#include "framework/fw_messhndlr.h"

#include <algorithm>
#include <unordered_set>
#include <vector>

#include "containers/maph.h"
#include "containers/rbh_check.h"
#include "frame/fw_trusted_map.h"
#include "frame/qva_cobalt.h"
#include "framework/fw_behavior.h"
#include "framework/fw_hashndlr.h"
#include "framework/fw_ident.h"
#include "framework/fw_message.h"

static QVA_STRUCT_TAG_DEF messageHandler_Tags[] = {
    {"QVAFWHASAHANDLER", nullptr, 0, QVA_STD_INHERIT},
    {"QVAFWMESSAGEHANDLER_VERSION", nullptr, QVA_TYP_LONG, 0},
    {"BEHAVIORS", nullptr, QVA_TYP_PTR, 0},
    {nullptr, nullptr, 0, 0},
};

QVA_KW_PAR messageHandler_Keywords[] = {
    FW_KW_FIRST,
    FW_KW_HANDLER,
    FW_KW_END,
};

QVA_SDEF QVAfwMessageHandlerStartup(void) {
  return QVA_MakeStructInternal("QVAFWMESSAGEHANDLER", QVA_SDEF_REUSE, messageHandler_Tags, 0);
}

// ------------------------------------------------------------ locating

static FwClass messageHandlerClass{"QVAFWMESSAGEHANDLER", "QVAfwMessageHandler", {}, {}, 0};

ClassPart MessageHandler_from_hvid(QVA_HVID hvid) {
  return fw_classPart(hvid, messageHandlerClass);
}

ClassPart MessageHandler_from_vptr(QVA_VPTR v) { return MessageHandler_from_hvid(fw_objrefOf(v)); }

ClassPart HasAHandler_from_MessageHandler(ClassPart part) { return part; }

// The top-level handler and those the module retired: process memory only.
static QVA_HVID _top_level_handler_ = 0;
static std::unordered_set<QVA_HVID> retired_top_levels;

namespace {

// The handler the walk goes on to from `handler`, or none at the top; a
// chain that loops ends the routine with an error (see HandlerChainGuard).
inline bool climb(ClassPart &handler, HandlerChainGuard &guard) {
  // An explicit link, while no top-level handler has retired, is the
  // parent as it stands; anything else is hasahandler_handler's to read.
  QVA_HVID parent = hasahandler_data(HasAHandler_from_MessageHandler(handler))->myhandler;
  if (!parent || !retired_top_levels.empty())
    parent = hasahandler_handler(HasAHandler_from_MessageHandler(handler));
  if (!parent) return false;
  handlerChain_visit(&guard, parent);
  handler = MessageHandler_from_hvid(parent);
  return true;
}

// A copy of a behaviour list, freed also when a behaviour's error unwinds
// through the loop that runs over it.  Most lists are short: up to kInline
// behaviours are copied into the snapshot itself, and only a longer list
// takes a block from the host allocator (as messagehandler_getBehaviors
// does), so that a dispatch to a few behaviours allocates nothing.
class BehaviorSnapshot {
 public:
  static constexpr int kInline = 16;

  explicit BehaviorSnapshot(QVA_HVID list) {
    for (QVA_HVID e = list ? maphBegin(list) : list; e != list; ++count_) {
      if (count_ == kInline) {  // a long list: copied whole into a block
        ids_ = messagehandler_getBehaviors(list, &count_);
        return;
      }
      const QVA_MAP_RBH_NODE *node = map_rbh_deref(e);
      inline_[count_] = node->KEY;
      e = node->FLINK;
    }
  }
  ~BehaviorSnapshot() {
    if (ids_ != inline_) QVA_MemFreeQuiet(ids_);
  }
  BehaviorSnapshot(const BehaviorSnapshot &) = delete;
  BehaviorSnapshot &operator=(const BehaviorSnapshot &) = delete;
  const QVA_HVID *begin() const { return ids_; }
  const QVA_HVID *end() const { return ids_ + count_; }
  int size() const { return count_; }
  // Hands a block back under a label the allocator reports against.
  void freeLabelled(const char *label) {
    if (ids_ != inline_) QVA_MemFreeMSG_RET(ids_, label);
    ids_ = inline_;
    count_ = 0;
  }

 private:
  int count_ = 0;
  QVA_HVID *ids_ = inline_;
  QVA_HVID inline_[kInline];
};

void reregisterAll(QVA_HVID list) {
  BehaviorSnapshot snapshot(list);
  for (QVA_HVID b : snapshot) behavior_reregister(Behavior_from_hvid(b));
}

}  // namespace

// ---------------------------------------------------- top-level handler

int messagehandler_init(ClassPart handler, FwKeywordFields *kw) {
  if (!hasahandler_init(HasAHandler_from_MessageHandler(handler), kw)) return 0;
  messagehandler_data(handler)->version = 1;
  messagehandler_setMap(handler, maphInit());
  return 1;
}

namespace {

// The behaviour lists met while a behaviour map is checked.
struct ListCheck {
  std::vector<QVA_HVID> *heads;
  const char *list_fault;
};

const char *behaviorMapEntryFault(void *ctx, QVA_HVID key, QVA_HVID list) {
  auto *c = static_cast<ListCheck *>(ctx);
  if (!fwIdent_isIdentifier(key)) return "a key is not a message identifier";
  static const map_rbh_shape list_shape{behavior_compare, nullptr, nullptr};
  if ((c->list_fault = map_rbh_check(list, list_shape))) return "a behaviour list is broken";
  c->heads->push_back(list);
  return nullptr;
}

// The map, then each list in it.  Behaviours in a list are checked when
// they run, as they may be destroyed at any time.
std::string checkBehaviorMap(QVA_HVID map, std::vector<QVA_HVID> &heads) {
  heads.push_back(map);
  ListCheck c{&heads, nullptr};
  const map_rbh_shape shape{messageIdentCompare, behaviorMapEntryFault, &c};
  const char *fault = map_rbh_check(map, shape);
  if (!fault) return {};
  return c.list_fault ? std::string(fault) + ": " + c.list_fault : fault;
}

// messagehandler_map, inline in the dispatch walk, which reads the map of
// every handler it climbs past.
inline QVA_HVID trustedBehaviorMap(ClassPart handler) {
  return fw_trustedMap(handler.hvid, &messagehandler_data(handler)->behaviors, checkBehaviorMap,
                       "QVAfwMessageHandler", "BEHAVIORS");
}

}  // namespace

QVA_HVID messagehandler_map(ClassPart handler) { return trustedBehaviorMap(handler); }

void messagehandler_setMap(ClassPart handler, QVA_HVID map) {
  messagehandler_data(handler)->behaviors = map;
}

QVA_HVID TopLevelMessageHandler(void) {
  if (_top_level_handler_) return _top_level_handler_;
  QVA_HVID id = fw_newObject("QVAFWMESSAGEHANDLER");
  // A handler that could not be initialised is not kept half made.
  struct Discard {
    QVA_HVID id;
    ~Discard() {
      if (id) QVA_HeapVarDelete(id, 0, 0);
    }
  } discard{id};
  messagehandler_init(MessageHandler_from_hvid(id), nullptr);
  discard.id = 0;
  _top_level_handler_ = id;
  // Nothing in the language refers to it: hold it against heap collection.
  QVA_HeapVarHashFind(id)->flags |= QVA_HV_HELD;
  return _top_level_handler_;
}

QVA_HVID currentTopLevelHandler(void) { return _top_level_handler_; }

void QVA_fwMessagehandler_RstTopLev(void) { _top_level_handler_ = 0; }

int amITopLevel(QVA_HVID hvid) { return hvid != 0 && hvid == _top_level_handler_; }

int messagehandler_retiredTopLevel(QVA_HVID hvid) {
  return !retired_top_levels.empty() && retired_top_levels.count(hvid) ? 1 : 0;
}

void messagehandler_forgetRetired(void) { retired_top_levels = {}; }

// ------------------------------------------------------------- dispatch

namespace {

// messagehandler_behaviorList, inline in the dispatch walk, which asks it
// at every handler it climbs past.
inline QVA_HVID listAt(ClassPart handler, QVA_HVID ident) {
  QVA_HVID map = trustedBehaviorMap(handler);
  // Most handlers a message climbs past scope nothing: an empty map
  // answers from its head, without a search.
  if (!map || map_rbh_deref(map)->FLINK == map) return 0;
  QVA_HVID entry = maphFind(map, ident, messageIdentCompare);
  return entry ? maphData(entry) : 0;
}

}  // namespace

QVA_HVID messagehandler_behaviorList(ClassPart handler, QVA_HVID ident) {
  return listAt(handler, ident);
}

QVA_HVID *messagehandler_getBehaviors(QVA_HVID list, int *count) {
  // One walk gathers the keys (a count first would walk the list twice).
  static thread_local std::vector<QVA_HVID> keys;
  keys.clear();
  if (list)
    for (QVA_HVID e = maphBegin(list); e != list;) {
      const QVA_MAP_RBH_NODE *node = map_rbh_deref(e);
      keys.push_back(node->KEY);
      e = node->FLINK;
    }
  *count = static_cast<int>(keys.size());
  if (*count <= 0) return nullptr;
  auto *ids = static_cast<QVA_HVID *>(
      QVA_MemAllocMSG_LONGJMP(sizeof(QVA_HVID) * keys.size(), "QVafwBehaviorList"));
  std::copy(keys.begin(), keys.end(), ids);
  return ids;
}

void messagehandler_sendMessage(ClassPart handler, QVA_HVID ident, QVA_VPTR arg) {
  HandlerChainGuard guard;
  do {
    if (QVA_HVID list = listAt(handler, ident)) {
      messagehandler_execBehaviors(list, arg);
      return;
    }
  } while (climb(handler, guard));
  // Unclaimed at the top: dropped.
}

void messagehandler_execBehaviors(QVA_HVID list, QVA_VPTR arg) {
  BehaviorSnapshot snapshot(list);
  // Two or more behaviours share one value: a temporary argument moves into
  // a local variable that lives for the whole dispatch, and the caller's
  // temporary is left undefined (the caller still releases it).
  struct SharedArgument {
    QVA_VARIABLE var{};
    bool used = false;
    ~SharedArgument() {
      if (used) QVA_Delvar(&var);
    }
  } shared;
  QVA_VPTR given = arg;
  if (arg && snapshot.size() >= 2 && (arg->flags & QVA_V_TEMP)) {
    shared.var = *arg;
    shared.var.flags &= static_cast<QVA_UCHAR>(~QVA_V_TEMP);
    shared.used = true;
    arg->type = QVA_TYP_UNDEF;
    arg->flags = QVA_V_TEMP;
    arg->value = {};
    given = &shared.var;
  }
  for (QVA_HVID b : snapshot) behavior_call_execute(Behavior_from_hvid(b), given);
}

void messagehandler_addBehavior(ClassPart handler, ClassPart behavior) {
  QVA_HVID ident = behavior_messIdent(behavior);
  HandlerChainGuard guard;
  do {
    if (QVA_HVID list = messagehandler_behaviorList(handler, ident)) {
      maphInsert(list, behavior.hvid, 0, behavior_compare);
      return;
    }
  } while (climb(handler, guard));
  // No scope on the way up: the top-level handler claims the message.
  messagehandler_scopeMessage(handler, ident);
  if (QVA_HVID list = messagehandler_behaviorList(handler, ident))
    maphInsert(list, behavior.hvid, 0, behavior_compare);
}

void messagehandler_removeBehavior(ClassPart handler, ClassPart behavior) {
  QVA_HVID ident = behavior_messIdent(behavior);
  HandlerChainGuard guard;
  do {
    if (QVA_HVID list = messagehandler_behaviorList(handler, ident)) {
      if (QVA_HVID entry = maphFind(list, behavior.hvid, behavior_compare)) {
        maphErase(entry);
        if (amITopLevel(handler.hvid) && maphEmpty(list))
          messagehandler_unscopeMessage(handler, ident);
        return;
      }
    }
  } while (climb(handler, guard));
}

void messagehandler_cleanup(ClassPart handler) {
  if (amITopLevel(handler.hvid)) QVA_fwMessagehandler_RstTopLev();
  hasahandler_cleanup(HasAHandler_from_MessageHandler(handler));
  QVA_HVID map = messagehandler_map(handler);
  if (!map) return;
  for (QVA_HVID e = maphBegin(map); e != map; e = map_rbh_deref(e)->FLINK) {
    fwIdent_releaseHVID(maphKey(e));
    QVA_HVID list = maphData(e);
    if (!QVA_HeapVarHashFind(list)) continue;
    // Marking runs no code of the behaviours, so the list cannot change
    // under the walk: it is read in place rather than copied, and a long
    // list cannot fail to be copied with the handler half torn down.
    for (QVA_HVID entry = maphBegin(list); entry != list; entry = map_rbh_deref(entry)->FLINK) {
      const QVA_HVID b = maphKey(entry);
      // A behaviour destroyed while listed here (one added with
      // ADDBEHAVIOR) has nothing left to mark.
      if (QVA_ObjValidate(b, QVA_MSG_RET)) behavior_setRegistered(Behavior_from_hvid(b), 0);
    }
    maphFree(list);
  }
  maphFree(map);
  messagehandler_setMap(handler, 0);
}

void messagehandler_restore(ClassPart handler) {
  hasahandler_restore(HasAHandler_from_MessageHandler(handler));
  MessageHandlerData *d = messagehandler_data(handler);
  if (d->version < 1) {
    d->version = 1;
    messagehandler_setMap(handler, maphInit());
  }
  QVA_HVID map = messagehandler_map(handler);
  if (!map) return;
  // Rolling a key over keeps its text, so the map's order still holds.
  for (QVA_HVID e = maphBegin(map); e != map; e = map_rbh_deref(e)->FLINK) {
    QVA_MAP_RBH_NODE *node = map_rbh_deref(e);
    node->KEY = fwIdent_rollover(node->KEY);
  }
}

// -------------------------------------------------------------- scoping

void messagehandler_scopeMessage(ClassPart handler, QVA_HVID ident) {
  if (messagehandler_behaviorList(handler, ident)) return;
  QVA_HVID map = messagehandler_map(handler);
  if (!map) return;
  QVA_HVID list = maphInit();
  struct Unused {
    QVA_HVID list;
    ~Unused() { maphFree(list); }
  } unused{list};
  maphInsert(map, ident, list, messageIdentCompare);
  unused.list = 0;
  fwIdent_acquireHVID(ident);
  HandlerChainGuard guard;
  if (climb(handler, guard)) messagehandler_rescopeBehaviors(handler, ident);
}

void messagehandler_rescopeBehaviors(ClassPart handler, QVA_HVID ident) {
  HandlerChainGuard guard;
  do {
    if (QVA_HVID list = messagehandler_behaviorList(handler, ident)) {
      reregisterAll(list);
      return;
    }
  } while (climb(handler, guard));
}

void messagehandler_unscopeMessage(ClassPart handler, QVA_HVID ident) {
  QVA_HVID map = messagehandler_map(handler);
  if (!map) return;
  if (QVA_HVID entry = maphFind(map, ident, messageIdentCompare)) {
    // The snapshot is taken while the entry is still listed: when it
    // cannot be made, nothing has changed.
    BehaviorSnapshot snapshot(maphData(entry));
    // Once erased, the list and the key's reference are this call's to
    // give up, also when re-registering a behaviour fails.
    // A list that something else broke meanwhile (the language freed one
    // of its nodes) is left to heap collection: freeing it would raise an
    // error here, in a destructor.
    struct Unlisted {
      QVA_HVID list, key;
      ~Unlisted() {
        static const map_rbh_shape any_entries{nullptr, nullptr, nullptr};
        if (list && !map_rbh_check(list, any_entries)) maphFree(list);
        fwIdent_releaseHVID(key);
      }
    } unlisted{maphData(entry), maphKey(entry)};
    maphErase(entry);
    for (QVA_HVID b : snapshot) behavior_reregister(Behavior_from_hvid(b));
    snapshot.freeLabelled("messagehandler_unscopeMessage");
  }
  // The top-level handler exists only while it scopes something.  Its
  // object goes without CLEANUP: the map is freed here.
  if (amITopLevel(handler.hvid) && maphEmpty(map)) {
    retired_top_levels.insert(handler.hvid);
    QVA_HeapVarDelete(handler.hvid, 0, 0);
    maphFree(map);
    QVA_fwMessagehandler_RstTopLev();
  }
}

// ------------------------------------------------- message designators

namespace {

// The identifier a routine's message argument names: an identifier pointer
// as it is, a message object's identifier, or a string interned for the
// call (released when the routine is done, also on an error).
class MessageDesignator {
 public:
  explicit MessageDesignator(QVA_VPTR v) {
    if (v->flags & QVA_V_NOT_SCALAR) QVA_MessageVE_NOTSCALAR(v, QVA_MSG_LONGJMP);
    switch (v->type) {
      case QVA_TYP_PTR:
        if (!fwIdent_isIdentifier(v->value.hvid)) refuse();
        ident_ = v->value.hvid;
        break;
      case QVA_TYP_OBJREF: {
        QVA_HVPTR hv = QVA_ObjValidate(v->value.hvid, QVA_MSG_LONGJMP);
        if (!(hv->var.flags & QVA_V_STRUCT) ||
            !QVA_ObjContainsClassByStr(hv->var.value.s.sdef, "QVAFWMESSAGE", 0, 0, QVA_MSG_LONGJMP))
          refuse();
        ident_ = message_ident(Message_from_hvid(v->value.hvid));
        break;
      }
      case QVA_TYP_STRING:
        ident_ = fwIdent_get(&v->value.str);
        owned_ = true;
        break;
      default:
        refuse();
    }
  }
  ~MessageDesignator() {
    if (owned_) fwIdent_releaseHVID(ident_);
  }
  MessageDesignator(const MessageDesignator &) = delete;
  MessageDesignator &operator=(const MessageDesignator &) = delete;
  QVA_HVID ident() const { return ident_; }

 private:
  [[noreturn]] static void refuse() {
    QVA_Message(QVA_M_NOT_OF_CLASS, QVA_MSG_LONGJMP, "message", "QVAfwMessage");
    __builtin_unreachable();
  }
  QVA_HVID ident_ = 0;
  bool owned_ = false;
};

}  // namespace

// ------------------------------------------------- registered routines

QVA_VPTR QVA_fwMessageHandler_Init(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
  return fw_initWithKeywords(argc, argv, argk, messageHandler_Keywords, MessageHandler_from_vptr,
                             messagehandler_init);
}

void QVA_fwMessageHandler_Cleanup(int, QVA_VPTR argv[]) {
  messagehandler_cleanup(MessageHandler_from_vptr(argv[0]));
}

void QVA_fwMessageHandler_SendMess(int argc, QVA_VPTR argv[]) {
  MessageDesignator message(argv[1]);
  messagehandler_sendMessage(MessageHandler_from_vptr(argv[0]), message.ident(),
                             argc >= 3 ? argv[2] : nullptr);
}

void QVA_fwMessageHandler_AddBehav(int, QVA_VPTR argv[]) {
  ClassPart behavior = Behavior_from_vptr(argv[1]);
  messagehandler_addBehavior(MessageHandler_from_vptr(argv[0]), behavior);
}

void QVA_fwMessageHandler_RemBehav(int, QVA_VPTR argv[]) {
  ClassPart behavior = Behavior_from_vptr(argv[1]);
  messagehandler_removeBehavior(MessageHandler_from_vptr(argv[0]), behavior);
}

QVA_VPTR QVA_fwMessageHandler_Behaviors(int, QVA_VPTR argv[]) {
  QVA_HVID list;
  {
    MessageDesignator message(argv[1]);
    list = messagehandler_behaviorList(MessageHandler_from_vptr(argv[0]), message.ident());
  }
  int n = list ? maphSize(list) : 0;
  if (n <= 0) return fw_objrefTemp(0);
  QVA_VPTR result = nullptr;
  auto *ids = reinterpret_cast<QVA_HVID *>(QVA_MakeTempVector(QVA_TYP_OBJREF, n, 1, &result));
  int i = 0;
  for (QVA_HVID e = maphBegin(list); e != list && i < n; e = map_rbh_deref(e)->FLINK)
    ids[i++] = maphKey(e);
  return result;
}

void QVA_fwMessageHandler_Restore(int, QVA_VPTR argv[]) {
  messagehandler_restore(MessageHandler_from_vptr(argv[0]));
}

void QVA_fwMessageHandler_ScopeMess(int, QVA_VPTR argv[]) {
  MessageDesignator message(argv[1]);
  messagehandler_scopeMessage(MessageHandler_from_vptr(argv[0]), message.ident());
}

void QVA_fwMessageHandler_UnScopeMes(int, QVA_VPTR argv[]) {
  MessageDesignator message(argv[1]);
  messagehandler_unscopeMessage(MessageHandler_from_vptr(argv[0]), message.ident());
}

QVA_VPTR QVA_fwMessageHandler_IsScoped(int, QVA_VPTR argv[]) {
  QVA_HVID list;
  {
    MessageDesignator message(argv[1]);
    list = messagehandler_behaviorList(MessageHandler_from_vptr(argv[0]), message.ident());
  }
  QVA_VPTR result = QVA_Gettmp();
  result->type = QVA_TYP_INT;
  result->value.i = list ? 1 : 0;
  return result;
}

QVA_VPTR QVA_fwMessageHandler_ScopedMess(int, QVA_VPTR argv[]) {
  QVA_HVID map = messagehandler_map(MessageHandler_from_vptr(argv[0]));
  int n = maphSize(map);
  QVA_VPTR result = nullptr;
  // Nothing scoped: the host answers a request for no elements with the
  // undefined value, and there is nothing to fill in.
  auto *texts = reinterpret_cast<QVA_STRING *>(QVA_MakeTempVector(QVA_TYP_STRING, n, 1, &result));
  int i = 0;
  for (QVA_HVID e = maphBegin(map); e != map && i < n; e = map_rbh_deref(e)->FLINK, ++i) {
    QVA_HVPTR ident = QVA_HeapVarHashFind(maphKey(e));
    if (!ident || ident->var.type != QVA_TYP_STRING)
      QVA_MessageFromBlock(qva_cobalt_msg_block, QVA_M_COBALT_FWMSG_IDCORRUPT, QVA_MSG_LONGJMP);
    texts[i] = fw_ownedText(ident->var.value.str);
  }
  return result;
}
