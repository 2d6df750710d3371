/* The exchange of messages between two components through kxcore, with termination signals, ends of processes and
 * forged answers at any moment.
 *
 * Each component runs the library's event loop: it dispatches what was set aside, then serves its management
 * socket, its data socket or a timer. Its handlers do what applications do: synchronous calls, one-way messages
 * and management exchanges; while one of them waits for its reply, everything else that arrives is set aside. So
 * it is while a thread beside the loop makes a call.
 * kxcore remembers each request that it takes on until it has passed on an answer, and answers itself where its
 * server cannot any more.
 * What is begun is bounded, so every run comes to rest; what is asked of the system is asked at each step (sent,
 * settled) and there (at_rest).
 *
 * Names in parentheses are the functions of the library and of kxcore. Each of the names that begin with BROKEN_
 * breaks a rule on purpose, to show that the checks can fail.
 */

#ifndef ACTIONS
#define ACTIONS 1 /* that the timer of each component begins */
#endif
#ifndef ACTIONS_0
#define ACTIONS_0 ACTIONS /* or that of component 0, */
#endif
#ifndef ACTIONS_1
#define ACTIONS_1 ACTIONS /* and that of component 1 */
#endif
#ifndef NESTED
#define NESTED 0 /* calls that the stub of each component makes before it answers */
#endif
#ifndef SUBSCRIPTIONS
#define SUBSCRIPTIONS 0 /* management exchanges that handlers of notices begin in each component */
#endif
/* ONLY_NOTICES: what timers begin are one-way messages.
 * ONLY_REQUESTS: requests that nobody waits for. STUBS_ASK: it is stubs that make them, and each is answered twice.
 * REPLACED: component 1 is started again somewhere else, and goes on itself. */
#ifndef WITHDRAWALS
#define WITHDRAWALS 0 /* of its service, by a handler of a request in each component */
#endif
#ifndef DEATHS
#define DEATHS 0 /* processes that end without a word, of both components together */
#endif
#ifndef FORGERIES
#define FORGERIES 0 /* messages of a third component that pose as answers */
#endif
#ifndef CALLS_BESIDE
#define CALLS_BESIDE 0 /* that a thread beside component 0's loop makes */
#endif
#ifndef SIGNALS_0
#define SIGNALS_0 0 /* termination signals to component 0, */
#endif
#ifndef SIGNALS_1
#define SIGNALS_1 0 /* and to component 1 */
#endif
#ifndef ROOM
#define ROOM 1 /* datagrams that a data socket holds */
#endif

#define IDS_LOOP (ACTIONS + NESTED)
#define IDS_EACH (IDS_LOOP + CALLS_BESIDE)
#define IDS (2 * IDS_EACH)
#define asker(which) ((which) / IDS_EACH) /* the component whose id it is */
#ifndef RECORDS
#define RECORDS IDS_EACH /* open requests of each component that kxcore remembers */
#endif
#define MAX_UNSERVED_KILLS 2 /* as many as a management socket holds */

/* A datagram: what it is, the id of its exchange, and the component that it is for; of SUB, WITHDRAW and UNREG, from.
 * RSP stands for ERR, too; FORGED is what a third component sends with the id of another's request. */
mtype = { NONE, REQ, RSP, SIG, SUB, GRANT, KILL, WAKE, WITHDRAW, UNREG, FORGED };

chan data[2] = [ROOM] of { mtype, byte, byte };
chan mgmt[2] = [2] of { mtype, byte, byte };
chan core_data = [ROOM] of { mtype, byte, byte };
chan core_mgmt = [2] of { mtype, byte, byte };
chan queue[2] = [1] of { mtype, byte, byte };   /* kxcore's, behind a full data socket (outlet) */
chan waiting[2] = [6] of { mtype, byte, byte }; /* m_waiting_queue; never full here */

bool running[2] = true; /* m_running */
bool known[2] = true;   /* to kxcore, */
bool offered[2] = true; /* and its service, too */
bool given_up[2];       /* by kxcore, which may not have read all that the component had sent */
byte deaths = DEATHS;   /* still to come */
bool at_poll[2], stopped[2], armed[2];
byte lock_depth[2];     /* m_mutex: how often it is held, */
byte lock_holder[2];    /* and by the loop's thread (1) or another (2) */
bool data_taken[2];     /* m_data_taken */
bool woken[2];          /* a wake-up was sent since the loop looked at the waiting queue */
byte unserved_kills[2]; /* m_unserved_kills */
byte kills[2];          /* sent, and neither obeyed nor dropped; */
bool kill_dropped[2];   /* one at least since the loop polled */

/* What became of each message: nothing stays underway, and nothing happens to one twice. A request that is lost has not
 * reached kxcore. A reply counts as sent when kxcore passes it on, or says that there will be none. */
#define UNSENT 0
#define UNDERWAY 1
#define DELIVERED 2
#define DROPPED 3
#define LOST 4
byte requests[IDS], replies[IDS], notices[IDS];

chan open_requests[2] = [RECORDS] of { byte }; /* of each component, to the other one: the oldest first */
bool displaced[IDS]; /* from there by a newer one */

inline sent(what, which) {
  d_step {
    if
    :: what == REQ -> assert(requests[which] == UNSENT); requests[which] = UNDERWAY
    :: what == RSP -> assert(replies[which] == UNSENT); replies[which] = UNDERWAY
    :: what == SIG -> assert(notices[which] == UNSENT); notices[which] = UNDERWAY
    fi
  }
}

inline settled(what, which, fate) {
  d_step {
    if
    :: what == REQ -> assert(requests[which] == UNDERWAY); requests[which] = fate
    :: what == RSP -> assert(replies[which] == UNDERWAY); replies[which] = fate
    :: what == SIG -> assert(notices[which] == UNDERWAY); notices[which] = fate
    fi
  }
}

/* What is done within one step needs the mutex to be free, no more. */
#define may_hold(c, thread) (lock_depth[c] == 0 || lock_holder[c] == thread)

inline acquire(c, thread) { atomic { may_hold(c, thread) -> lock_holder[c] = thread; lock_depth[c]++ } }

inline release(c) { d_step { assert(lock_depth[c] > 0); lock_depth[c]-- } }

/* send_message_to: the last of its attempts finds room in the core's socket, or the message is lost; as it is
 * by a component that has closed its own. */
inline send(what, which, c) {
  atomic {
    sent(what, which);
    if
    :: nfull(core_data) && !stopped[c] -> core_data!what(which, 1 - c)
    :: full(core_data) || stopped[c] -> settled(what, which, LOST)
    fi
  }
}

inline answer(which, c) {
  if
  :: atomic { nfull(core_data) && !stopped[c] -> core_data!RSP(which, 1 - c) }
  :: full(core_data) || stopped[c]
  fi
}

/* A wake-up to the component's own management socket, unless the loop has not looked at the waiting queue since
 * the last one. */
inline wake_loop(c) {
  if
  :: woken[c]
  :: atomic {
      !woken[c] ->
#ifndef BROKEN_WAKE_UP_IS_MARKED_AFTER_SENDING
      woken[c] = true
#endif
    };
    if
    :: atomic { nfull(mgmt[c]) && !stopped[c] -> mgmt[c]!WAKE(0, c) };
#ifdef BROKEN_WAKE_UP_IS_MARKED_AFTER_SENDING
      woken[c] = true
#endif
    :: full(mgmt[c]) || stopped[c] -> woken[c] = false
    fi
  fi
}

/* The loop comes to look at the management socket. */
inline clear_unserved_kills(c) {
#ifndef BROKEN_KILLS_ARE_NEVER_FORGOTTEN
  unserved_kills[c] = 0
#else
  skip
#endif
}

/* Until the response is there, what else arrives is set aside (await_response). */
inline await_response(c) {
  do
  :: atomic {
      data[c]?kind, id, to ->
      if
      :: kind == RSP && id == call_id -> settled(RSP, id, DELIVERED); break
      :: kind != RSP || id != call_id ->
#ifndef BROKEN_FOREIGN_MESSAGES_ARE_LOST
        waiting[c]!kind(id, to)
#else
        skip
#endif
      fi
    }
  :: empty(data[c]) -> break /* ten seconds of silence; or the socket is closed */
  od
}

/* A synchronous call on the loop's thread (proxy_send). */
inline call(c) {
  atomic {
    acquire(c, 1);
    call_id = c * IDS_EACH + used;
    used++;
    send(REQ, call_id, c)
  };
  if
  :: requests[call_id] == LOST
  :: requests[call_id] != LOST -> await_response(c)
  fi;
#ifdef BROKEN_LOCK_IS_KEPT
  if
  :: requests[call_id] == LOST
  :: requests[call_id] != LOST -> release(c)
  fi;
#else
  release(c);
#endif
  call_id = 0
}

/* A management exchange (interconnect_service) waits without limit; kxcore always answers. */
inline exchange(c) {
  core_mgmt!SUB(0, c);
  do /* await_reply */
  :: atomic {
      mgmt[c]?kind, id, to ->
      if
      :: kind == GRANT -> break
      :: kind != GRANT -> waiting[c]!kind(id, to)
      fi
    }
  od
}

/* A request's stub answers, perhaps after a call of its own; late responses and notices reach their proxy. */
inline deliver(c) {
  if
  :: kind == WAKE /* dropped, as the next: nobody is bound to the siid of management */
  :: kind == KILL ->
#ifndef BROKEN_NO_KILL_MAY_BE_SET_ASIDE
    atomic { kills[c]--; kill_dropped[c] = true }
#else
    skip
#endif
  :: kind == REQ ->
    settled(REQ, id, DELIVERED);
    served = id;
    if
    :: nested > 0 -> nested--; call(c)
    :: nested == 0
    fi;
#if WITHDRAWALS
    if
    :: withdrawals > 0 -> withdrawals--; core_mgmt!WITHDRAW(0, c)
    :: true
    fi;
#endif
#if DEATHS
    if
    :: atomic { deaths > 0 && empty(waiting[c]) -> deaths--; goto ended }
    :: true
    fi;
#endif
#ifdef STUBS_ASK
    answer(served, c);
#endif
    answer(served, c)
  :: kind == RSP -> settled(RSP, id, DELIVERED)
  :: kind == SIG ->
    settled(SIG, id, DELIVERED);
    if
    :: subscriptions > 0 -> subscriptions--; exchange(c)
    :: subscriptions == 0
    fi
  fi
}

#define free_to_receive(c) (data_ready && may_hold(c, 1) && !data_taken[c])

/* Since poll found something there, a call on another thread may have emptied the data socket, and what that set
 * aside comes before what is there now. */
inline get_data_message(c) {
  if
  :: !data_ready
  :: atomic { data_ready && may_hold(c, 1) && data_taken[c] -> data_ready = false }
  :: atomic {
      free_to_receive(c) && nempty(data[c]) ->
      assert(empty(waiting[c]));
      data_ready = false;
      data[c]?kind, id, to
    };
    deliver(c)
  :: atomic { free_to_receive(c) && empty(data[c]) -> assert(false); data_ready = false } /* waits in vain */
  fi
}

inline get_mgmt_message(c) {
  mgmt[c]?kind, id, to;
  if
  :: atomic { kind == KILL -> running[c] = false; kills[c]-- }
  :: kind != KILL
  fi
}

/* What is unread in a socket is lost with it. */
inline abandon(socket) {
  do
  :: socket?kind, id, to ->
    if
    :: kind == KILL || kind == WAKE || kind == GRANT
    :: kind != KILL && kind != WAKE && kind != GRANT -> settled(kind, id, DROPPED)
    fi
  :: empty(socket) -> break
  od
}

proctype component(byte me; byte actions) {
  mtype kind;
  byte id, to, call_id, served, used;
  byte nested = NESTED, subscriptions = SUBSCRIPTIONS, withdrawals = WITHDRAWALS;
  bool data_ready;

  do /* wait */
  :: atomic {
      running[me] ->
#ifndef BROKEN_WAKE_UP_IS_CLEARED_TOO_LATE
      woken[me] = false
#endif
    };
    do /* dispatch_waiting_queue: the front is removed when it has been dispatched. The mark of a wake-up is cleared
        * before each look, because a handler's exchange may have taken that out of the socket. */
    :: atomic { nempty(waiting[me]) -> waiting[me]?<kind, id, to> };
      deliver(me);
#ifndef BROKEN_FRONT_IS_DISPATCHED_TWICE
      atomic {
        waiting[me]?_, _, _;
#if !defined BROKEN_WAKE_UP_IS_CLEARED_TOO_LATE && !defined BROKEN_WAKE_UP_IS_CLEARED_ONCE_A_TURN
        woken[me] = false
#endif
      }
#endif
#if DEATHS
    :: atomic { deaths > 0 -> deaths--; goto ended }
#endif
    :: empty(waiting[me]) ->
#ifdef BROKEN_WAKE_UP_IS_CLEARED_TOO_LATE
      woken[me] = false;
#endif
      break
    od;
    atomic {
#ifndef BROKEN_LOOP_DOES_NOT_WAIT_FOR_CALLS
      may_hold(me, 1) -> /* poll_timeout */
#endif
#ifndef BROKEN_LATE_MESSAGES_ARE_OVERTAKEN
      data_taken[me] = nempty(waiting[me]);
#else
      data_taken[me] = false;
#endif
      clear_unserved_kills(me); /* poll_descriptors */
      kill_dropped[me] = false;
      kind = NONE; id = 0; to = 0; served = 0;
      at_poll[me] = true
    };
end_poll:
    if
    :: atomic { nempty(mgmt[me]) -> at_poll[me] = false; data_ready = nempty(data[me]); clear_unserved_kills(me) };
      get_mgmt_message(me)
    :: atomic { empty(mgmt[me]) && nempty(data[me]) -> at_poll[me] = false; data_ready = true }
    :: atomic { empty(mgmt[me]) && empty(data[me]) && actions > 0 -> at_poll[me] = false; actions-- };
      acquire(me, 1); /* fire_earliest_timer */
      if
#ifdef ONLY_REQUESTS
      :: atomic { served = me * IDS_EACH + used; used++ }; send(REQ, served, me)
#else
      :: atomic { served = me * IDS_EACH + used; used++ }; send(SIG, served, me)
#ifndef ONLY_NOTICES
      :: call(me)
      :: exchange(me)
#endif
#endif
      fi;
      release(me)
#if DEATHS
    :: atomic { deaths > 0 -> at_poll[me] = false; deaths--; goto ended }
#endif
    fi;
    get_data_message(me)
  :: !running[me] -> break
  od;
  core_mgmt!UNREG(0, me); /* stop */
#if DEATHS
ended:
#endif
  atomic {
    stopped[me] = true;
    abandon(data[me]);
    abandon(mgmt[me]);
    abandon(waiting[me])
  }
}

/* Another thread makes synchronous calls. What they set aside may have been all that would have woken the loop
 * (synchronous_wait). */
proctype caller(byte me; byte calls) {
  mtype kind;
  byte id, to, call_id;
  byte used = IDS_LOOP;

  do
  :: used < IDS_LOOP + calls ->
    atomic {
      acquire(me, 2);
      call_id = me * IDS_EACH + used;
      used++;
      send(REQ, call_id, me);
#ifdef BROKEN_THE_LAST_TURN_IS_FORGOTTEN
      data_taken[me] = data_taken[me] || running[me]
#elif !defined BROKEN_DATA_IS_NOT_MARKED_AS_TAKEN
      data_taken[me] = true
#endif
    };
    if
    :: requests[call_id] == LOST
    :: requests[call_id] != LOST ->
      await_response(me);
#ifndef BROKEN_LOOP_IS_NOT_WOKEN
      if
      :: nempty(waiting[me]) -> wake_loop(me)
      :: empty(waiting[me])
      fi
#endif
    fi;
    release(me)
  :: used == IDS_LOOP + calls -> break
  od
}

/* Another thread arms a timer (add_msec_timer). */
proctype other_thread(byte me) {
  acquire(me, 2);
  atomic { armed[me] = true; release(me) }
}

/* sig_handler sends the kill message while the component runs, unless as many are unserved as may be. Then one of them
 * still ends the component, or this turn of the loop has dropped one that an exchange had set aside. It is counted when
 * it has been sent; the loop may have read it by then. */
proctype termination_signals(byte to_whom; byte left) {
  do
  :: atomic { left > 0 && running[to_whom] && unserved_kills[to_whom] < MAX_UNSERVED_KILLS -> left-- };
    if
    :: atomic {
        nfull(mgmt[to_whom]) && !stopped[to_whom] ->
#ifndef BROKEN_SIGNAL_IS_FORGOTTEN
        mgmt[to_whom]!KILL(0, to_whom);
#endif
        kills[to_whom]++
      };
      unserved_kills[to_whom]++
    :: full(mgmt[to_whom]) || stopped[to_whom]
    fi
  :: atomic {
      left > 0 && running[to_whom] && unserved_kills[to_whom] >= MAX_UNSERVED_KILLS ->
      left--;
      assert(kills[to_whom] > 0 || kill_dropped[to_whom])
    }
  :: left == 0 || !running[to_whom] -> break
  od
}

/* A third component sends what could be taken for the answer to a request, be there such a request or not. */
proctype forger(byte left) {
  byte which;

  do
  :: left > 0 ->
    select(which : 0 .. IDS - 1);
    atomic {
      left--;
      if
      :: nfull(core_data) -> core_data!FORGED(which, asker(which))
      :: full(core_data)
      fi;
      which = 0
    }
  :: left == 0 -> break
  od
}

#define reachable(c) (known[c] && !stopped[c])
#define serves(c) (known[c] && offered[c])

/* The oldest open request of a component makes room for a new one (open_requests::add). */
inline remember(which) {
  if
  :: full(open_requests[asker(which)]) -> open_requests[asker(which)]?oldest; displaced[oldest] = true; oldest = 0
  :: nfull(open_requests[asker(which)])
  fi;
  open_requests[asker(which)]!which
}

inline close(which) {
  if
  :: open_requests[asker(which)]??[eval(which)] -> open_requests[asker(which)]??eval(which)
  :: else
  fi
}

/* kxcore's road to a component's data socket (roster::send). */
inline forward(what, which, whom) {
  if
  :: reachable(whom) && empty(queue[whom]) && nfull(data[whom]) -> data[whom]!what(which, whom); refused = false
  :: reachable(whom) && empty(queue[whom]) && full(data[whom]) -> queue[whom]!what(which, whom); refused = false
  :: reachable(whom) && nempty(queue[whom]) -> refused = true
  :: !known[whom] -> refused = true
  :: known[whom] && stopped[whom] -> refused = true; given_up[whom] = true
  fi
}

inline reply(which) {
  sent(RSP, which);
  forward(RSP, which, asker(which));
  if
  :: refused -> settled(RSP, which, DROPPED)
  :: !refused
  fi
}

/* An ERR in place of whom the request was sent to (roster::fail). */
inline fail(which) {
  close(which);
  reply(which)
}

inline undelivered() {
  settled(kind, id, DROPPED);
  if
  :: kind == REQ -> fail(id)
  :: kind != REQ
  fi
}

#if defined STUBS_ASK && !defined BROKEN_STUBS_TAKE_ANY_ANSWER
#define is_awaited(which) (open_requests[asker(which)]??[eval(which)])
#else
#define is_awaited(which) true /* a proxy takes as many as its service sends */
#endif

#ifdef BROKEN_NO_REQUEST_MAY_BE_DISPLACED
#define may_be_displaced(which) false
#else
#define may_be_displaced(which) displaced[which]
#endif

inline fail_all_to(c) {
  do
  :: open_requests[1 - c]?id -> reply(id)
  :: empty(open_requests[1 - c]) -> break
  od
}

inline withdraw(c) {
  offered[c] = false;
#ifndef BROKEN_WITHDRAWAL_IS_NOT_ANSWERED
  fail_all_to(c)
#endif
}

/* Who waits for an answer of a component that is forgotten gets an ERR. A request that waits for room in its socket may
 * have got one before, when its service was withdrawn. */
inline forget(c) {
  known[c] = false;
  do
#ifdef BROKEN_QUEUES_ARE_ANSWERED_AGAIN
  :: queue[c]?kind, id, to -> undelivered()
#else
  :: queue[c]?kind, id, to -> settled(kind, id, DROPPED)
#endif
  :: empty(queue[c]) -> break
  od;
#ifndef BROKEN_DEATH_IS_NOT_ANSWERED
  fail_all_to(c)
#endif
}

inline route_request() {
  if
  :: serves(to) ->
#ifndef BROKEN_RECORD_IS_MADE_AFTER_FORWARDING
    remember(id);
#endif
    forward(REQ, id, to)
  :: !serves(to) -> refused = true
  fi;
  if
  :: refused -> undelivered()
  :: !refused
  fi
#ifdef BROKEN_RECORD_IS_MADE_AFTER_FORWARDING
  ;
  remember(id)
#endif
}

/* An answer is refused only when the request has got another one (check_answer). */
inline route_answer() {
  if
#ifdef BROKEN_WITHDRAWN_SERVICES_ANSWER
  :: is_awaited(id) ->
#else
  :: offered[1 - to] && is_awaited(id) ->
#endif
#ifndef BROKEN_ANSWER_IS_NOT_CLOSED
    close(id);
#endif
    reply(id)
  :: else -> assert(replies[id] != UNSENT || may_be_displaced(id))
  fi
}

/* The answer goes to the sender's socket itself, without a queue. What is sent before the sender unregisters or ends
 * becomes a stranger's only where kxcore has met with the closed socket before it read this. */
inline refuse_stranger() {
  assert(kind == REQ || given_up[1 - to]);
  if
  :: kind == REQ ->
    settled(REQ, id, DROPPED);
    sent(RSP, id);
    if
    :: nfull(data[1 - to]) && !stopped[1 - to] -> data[1 - to]!RSP(id, 1 - to)
    :: full(data[1 - to]) || stopped[1 - to] -> settled(RSP, id, DROPPED)
    fi
  :: kind == SIG -> settled(SIG, id, DROPPED)
  :: kind == RSP
  fi
}

inline route() {
  if
  :: kind == FORGED ->
#ifdef BROKEN_FORGED_ANSWER_IS_PASSED_ON
    forward(RSP, id, to)
#elif defined BROKEN_ANYBODY_CLOSES
    close(id)
#else
    skip
#endif
  :: kind != FORGED && !known[1 - to] -> refuse_stranger()
  :: kind == REQ && known[1 - to] -> route_request()
  :: kind == RSP && known[1 - to] -> route_answer()
  :: kind == SIG && known[1 - to] ->
    forward(SIG, id, to);
    if
    :: refused -> settled(SIG, id, DROPPED)
    :: !refused
    fi
  fi
}

inline flush(c) {
  if
  :: stopped[c] -> given_up[c] = true
  :: !stopped[c] -> queue[c]?kind, id, to; data[c]!kind(id, to)
  fi
}

/* Management, and the end of a process: the data that came before is served first. */
#ifdef BROKEN_MANAGEMENT_OVERTAKES_DATA
#define may_be_served true
#else
#define may_be_served empty(core_data)
#endif

#define has_ended(c) (known[c] && stopped[c] && (given_up[c] || may_be_served))

inline done() { kind = NONE; id = 0; to = 0; refused = false }

proctype core() {
  mtype kind;
  byte id, to, oldest;
  bool refused;

end:
  do
  :: atomic { core_data?kind, id, to -> route(); done() }
  :: atomic {
      may_be_served && nempty(core_mgmt) ->
      core_mgmt?kind, _, to;
      if
      :: kind == SUB -> mgmt[to]!GRANT(0, to)
      :: kind == WITHDRAW -> withdraw(to)
      :: kind == UNREG && known[to] -> forget(to)
      :: kind == UNREG && !known[to]
      fi;
      done()
    }
  :: atomic { has_ended(0) -> forget(0); done() }
  :: atomic { has_ended(1) -> forget(1); done() }
#ifdef REPLACED
  :: atomic { may_be_served && known[1] -> given_up[1] = true; forget(1); done() } /* it registered again */
#endif
  :: atomic { nempty(queue[0]) && (nfull(data[0]) || stopped[0]) -> flush(0); done() }
  :: atomic { nempty(queue[1]) && (nfull(data[1]) || stopped[1]) -> flush(1); done() }
  od
}

#define was_taken_on(which) (requests[which] == DELIVERED || requests[which] == DROPPED)
#define is_owed_an_error(which) (was_taken_on(which) && !serves(1 - asker(which)))

/* Nothing moves any more: each component has stopped or waits in poll, and every message is accounted for. */
proctype at_rest() {
  byte i;

  timeout;
  d_step {
    for (i : 0 .. 1) {
      assert(stopped[i] || (at_poll[i] && running[i]));
      assert(stopped[i] || kills[i] == 0); /* only a kill that an exchange set aside does not end it */
      assert(lock_depth[i] == 0);
#ifdef THREADS
      assert(armed[i])
#endif
    };
    for (i : 0 .. IDS - 1) {
      assert(requests[i] != UNDERWAY && replies[i] != UNDERWAY && notices[i] != UNDERWAY);
      /* Whose server is gone is not left to wait for the limit. */
      assert(replies[i] != UNSENT || !is_owed_an_error(i) || may_be_displaced(i))
    }
  }
}

init {
  atomic {
    run core();
    run component(0, ACTIONS_0);
    run component(1, ACTIONS_1);
#if FORGERIES
    run forger(FORGERIES);
#endif
#if CALLS_BESIDE
    run caller(0, CALLS_BESIDE);
#endif
#ifdef THREADS
    run other_thread(0);
    run other_thread(1);
#endif
    run termination_signals(0, SIGNALS_0);
    run termination_signals(1, SIGNALS_1);
    run at_rest()
  }
}
