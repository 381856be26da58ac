/*
 * What becomes of an action: update server, agent, upgrade service and the camera's medium. Between any
 * two steps the power can go, the boot loader can take the former slot, the agent or the service can die,
 * a request or its answer can get lost, something between can answer a result with "not found", the server
 * can lose a result, change the files of an action, go away for good or be replaced by a new one that uses
 * the same ids, the operator can cancel, force quit or assign something newer, and somebody can start an
 * upgrade by hand; DISTURBANCES of these at most in one run, in any order. Each step is one that reaches
 * the outside. scripts/check_protocol looks at every run that there can be. With RELIABLE_SERVER results
 * arrive and are kept, files stay what they are, and the server is there: more of the rest can be tried.
 *
 * What must hold:
 *   - "success" is never said for a system that does not run, nor for files that are not the offered ones
 *   - every run ends, and then no action is open, no file is left, and "failure" was not said for the
 *     system that is started; when the server went away, no upgrade is left unfinished
 *   - there are never two requests of the agent at once, and none for an action that has its verdict, also
 *     when it is offered again
 *   - an upgrade is not begun for files that are not offered any more; one that has begun is not given up
 *     while its package is there, but after ATTEMPTS requests
 *   - a result is not given up while the server waits for it, but after REFUSED_RESULTS refusals
 *   - the service finds the whole package as long as it may read it
 *
 * Left out: what is in requests and answers, progress, and what the agent waits for: before it commits
 * consent, window and battery, after a start slot, partitions and card, as a pause can be anywhere anyway.
 * Waiting for the service has a limit, so it can end at any time at which the service does nothing. The
 * offer is read right before the commit and right before the result is sent: one step each, as what the
 * server changes in between no camera can know.
 *
 * Each of these names, given with spin -D, leaves one precaution out; then something above fails:
 *   POST_BEFORE_COMMIT  the request is posted before the record says that it may have been
 *   RECORD_ALONE        success is what the outcome record says
 *   POSTER_FORGOTTEN    after a death of the agent the request is posted again, whoever sent last
 *   PARTITIONS_UNSEEN   success is what outcome record and slot say, without a look at the partitions
 *   RECORD_NEEDED       a system that runs has failed when the outcome record says so
 *   VERDICT_KEPT        a success that was found before a restart is said after it, too
 *   BEGUN_UNSEEN        a queue that nobody has sent to is enough to post
 *   REQUEST_LEFT        when the wait for the service ends the request stays in the queue
 *   FAILURE_ON_TIMEOUT  the end of that wait is a failure, even if the slot may be switched
 *   ALWAYS_AGAIN        requests for one action are not counted
 *   HISTORY_UNSEEN      an action that is offered again is carried out again
 *   HISTORY_LATE        the record is removed before the history has the result
 *   MANIFEST_UNSEEN     an action is known by its id alone, whatever manifest it has
 *   NOT_FOUND_BELIEVED  a result that was answered with "not found" is forgotten
 *   OFFER_UNSEEN        the commit is made although other files are offered under the same id
 *   OFFER_UNSEEN_LATE   the result is sent although other files are offered under the same id
 *   BEGUN_DROPPED       an upgrade that has begun is dropped for other files under the same id
 *   BEGUN_ASKS_FIRST    an upgrade that has begun goes on only while the server offers it
 *   STOP_CONCLUDED      an agent that is asked to end before it can judge has seen a failure
 *   CARD_UNAWAITED      a package on a card that is not mounted yet is gone
 */
#ifndef DISTURBANCES
#define DISTURBANCES 5
#endif
#define ATTEMPTS 3        /* requests for one action */
#define REFUSED_RESULTS 2 /* refusals of one result; the agent has more patience */

/* --- the server ---------------------------------------------------------------------------------- */

mtype:status = { UNASSIGNED, OPEN, CANCELLING, CANCELED, QUIT, SUCCEEDED, FAILED };
mtype:status action[3] = UNASSIGNED; /* 1 and, assigned later, 2; 0 is nobody's */

#define in_hand(a) (action[a] == OPEN || action[a] == CANCELLING)
/* What is to be installed: package 1 of action 1, or 3 when the server has replaced it; 2 of action 2. */
#define REPLACED 3
bit replaced;
#define package_of(a) (a == 1 && replaced -> REPLACED : a)
bit away; /* it is not reached any more */
/* A newer action is not offered before the older one has ended. */
#define offered (in_hand(1) -> 1 : (in_hand(2) -> 2 : 0))

/* --- the medium ---------------------------------------------------------------------------------- */

/* The agent's record of its action, replaced as a whole. */
mtype:stage = { ACTION_NONE, ACTION_DOWNLOADING, ACTION_WAITING, ACTION_COMMITTED, ACTION_POSTED, ACTION_VERDICT };
mtype:stage stage = ACTION_NONE;
byte record_action, record_package;
bit this_boot;     /* the boot id in it is the running kernel's */
bit slot_before;
bit failed_before; /* what matters of the outcome record's bytes before */
byte attempts;
bit success;       /* the verdict */
byte refused;      /* times */

/* The history, for each package: whether it has its result, which, and its slot_before. */
bit known[4], good[4], history_slot[4];

mtype:files = { NO_FILES, SOME_FILES, ALL_FILES };
mtype:files files = NO_FILES; /* of the action's package */

/* The outcome record; 0 where it was cut short. */
#define RESULT_SUCCEEDED 1
#define RESULT_NOT_SUCCEEDED 2
#define STATE_SUCCESS 3
#define STATE_FAILURE 4
byte result = RESULT_SUCCEEDED, state = STATE_SUCCESS;

/* What is in the partitions: 1 to 3 are the packages. */
#define FORMER 4
#define BY_HAND 5
#define MIXED 6
byte image = FORMER;
bit half_written; /* by an upgrade of the agent's that was not given up yet */
bit image_slot; /* the slot that starts it */
bit slot;

/* --- what a restart forgets ---------------------------------------------------------------------- */

byte running = FORMER; /* what was in the partitions when the camera started */
bit begun;             /* an upgrade has begun in this boot: the service's pid file */

/* The queue outlives the service, and knows who sent last. */
bit queue;
byte waiting, behind; /* requests in it: a package, BY_HAND or 0 */
mtype:sender = { NOBODY, RECORDED, ANOTHER };
mtype:sender sender = NOBODY; /* RECORDED: the process that the agent's record names */

mtype:service = { DOWN, IDLE, TAKEN, PREPARED, WRITING, FAILING, RECORDING, SUCCEEDING, SWITCHING, DELETING, ENDING,
                  RESTARTING, GONE };
mtype:service service = DOWN;
bit half;     /* of a rewrite of the outcome record is done */
byte request; /* that it works on */
byte new_result, new_state;

/* The agent's next step. */
mtype:at = { POLL, DOWNLOAD, COMMIT, COMMIT_LATE, POST, NOTE_POSTED, AWAIT, GIVE_UP, AWAIT_RESTART, JUDGE,
             CHECK_AGAIN, CLEAN, CLOSE, REMEMBER, FORGET, CONFIRM, DROP };
mtype:at at = POLL;
byte seen; /* the action that the last poll showed */
bit settled; /* the server has taken the result, or does not wait for it */
#ifdef HISTORY_LATE
byte removed; /* the package of the record that was removed */
#endif

byte left = DISTURBANCES;

/* --- starting ------------------------------------------------------------------------------------ */

inline start_agent()
{
    seen = 0; settled = 0;
#ifdef HISTORY_LATE
    removed = 0;
#endif
    if
    :: stage == ACTION_COMMITTED || stage == ACTION_POSTED -> at = (this_boot -> AWAIT : JUDGE)
#ifdef VERDICT_KEPT
    :: stage == ACTION_VERDICT -> at = CLEAN
#else
    :: stage == ACTION_VERDICT -> at = (success && !this_boot -> CHECK_AGAIN : CLEAN)
#endif
    :: else -> at = (stage == ACTION_NONE && files != NO_FILES -> DROP : POLL)
    fi
}

inline start_camera()
{
    running = (slot == image_slot -> image : MIXED);
    begun = 0; queue = 0; waiting = 0; behind = 0; sender = NOBODY;
    service = DOWN; half = 0; request = 0; new_result = 0; new_state = 0;
    this_boot = 0;
    start_agent()
}

/* --- the agent ----------------------------------------------------------------------------------- */

#define is_failure (result == RESULT_NOT_SUCCEEDED && state == STATE_FAILURE)

inline commit()
{
    stage = ACTION_COMMITTED; this_boot = 1; slot_before = slot; failed_before = is_failure
}

#define is_own(message) (message != 0 && message != BY_HAND)

inline count_attempt()
{
#ifndef ALWAYS_AGAIN
    attempts++
#else
    attempts = 1
#endif
}

inline post()
{
    assert(!is_own(waiting) && behind == 0 && !is_own(request) && !known[record_package]);
    if
    :: waiting == 0 -> waiting = record_package
    :: else -> behind = record_package
    fi;
    sender = RECORDED
}

inline decide(verdict)
{
    stage = ACTION_VERDICT; success = verdict; this_boot = 1; failed_before = 0; attempts = 0; at = CLEAN;
    half_written = 0
}

inline judge_failure()
{
    assert(!half_written || slot != slot_before || files != ALL_FILES || attempts >= ATTEMPTS || is_failure);
    decide(0)
}

inline forget()
{
    stage = ACTION_NONE; record_action = 0; record_package = 0; success = 0; this_boot = 0; slot_before = 0;
    attempts = 0; refused = 0; settled = 0; at = POLL
}

inline remember(package, verdict)
{
    known[package] = 1; good[package] = verdict; history_slot[package] = (verdict -> slot_before : 0)
}

/* The server has lost the result, or has never got it: it gets the one of the history. */
inline answer_again(package)
{
    stage = ACTION_VERDICT; record_action = offered; record_package = package;
    success = good[package]; slot_before = history_slot[package]; this_boot = 0;
    at = (success -> CHECK_AGAIN : CLEAN)
}

#define is_same (package_of(record_action) == record_package)
#define is_begun (stage == ACTION_COMMITTED || stage == ACTION_POSTED)
#define poll_tells (!away && (stage != ACTION_NONE || offered != 0))
#define must_reject (!away && offered == record_action && action[offered] == CANCELLING)
#define must_close (!away && at == CLOSE && in_hand(record_action) && !must_reject)
#define is_talking ((at == POLL && poll_tells) || (!away && (at == CONFIRM || at == CLOSE)) || \
                    (at == AWAIT && must_reject))

/* What the server makes of what the agent says in this step. */
inline server_hears()
{
    if
    :: at == CONFIRM && action[seen] == CANCELLING -> action[seen] = CANCELED
    :: (at == AWAIT || at == CLOSE) && must_reject -> action[record_action] = OPEN
#if defined(OFFER_UNSEEN_LATE) || defined(MANIFEST_UNSEEN)
    :: must_close ->
#else
    :: must_close && is_same ->
#endif
        assert(!success || (running == record_package && is_same));
        action[record_action] = (success -> SUCCEEDED : FAILED)
    :: else
    fi
}

#ifdef BEGUN_UNSEEN
#define service_is_free (queue && sender == NOBODY)
#else
#define service_is_free (queue && sender == NOBODY && !begun)
#endif
#ifdef BEGUN_ASKS_FIRST
#define may_commit (!away && in_hand(record_action) && is_same)
#else
#define may_commit (is_begun || !in_hand(record_action) || may_go_on)
#endif
/* Nothing will become any more of what was posted, or nothing yet. */
#define service_rests (service == DOWN || service == GONE || \
                       (service == IDLE && waiting == 0 && (sender != NOBODY || begun)))

/* The package whose result the history would have; 0 never has one. */
#if defined(HISTORY_UNSEEN)
#define known_of(a) 0
#elif defined(MANIFEST_UNSEEN)
#define known_of(a) (a == 1 && !known[1] -> REPLACED : a)
#else
#define known_of(a) package_of(a)
#endif
/* Whether the last poll has shown what the agent works on. */
#ifdef OFFER_UNSEEN
#define may_go_on (is_same || stage != ACTION_DOWNLOADING)
#else
#define may_go_on is_same
#endif

active proctype agent()
{
end:
    do
    :: d_step { at == POLL && poll_tells ->
        if
        :: stage != ACTION_NONE && offered != record_action -> at = DROP
        :: action[offered] == CANCELLING -> seen = offered; at = CONFIRM
        :: stage != ACTION_NONE && offered == record_action && action[offered] == OPEN && !may_go_on -> at = DROP
        :: stage == ACTION_NONE && action[offered] == OPEN && known[known_of(offered)] ->
            answer_again(known_of(offered))
        :: stage == ACTION_NONE && action[offered] == OPEN && !known[known_of(offered)] ->
            stage = ACTION_DOWNLOADING; record_action = offered; record_package = package_of(offered); at = DOWNLOAD
        :: stage == ACTION_DOWNLOADING && offered == record_action && action[offered] == OPEN && may_go_on ->
            at = DOWNLOAD
        :: stage == ACTION_WAITING && offered == record_action && action[offered] == OPEN && may_go_on -> at = COMMIT
        fi }
    :: d_step { at == CONFIRM && !away -> server_hears(); seen = 0; at = (stage == ACTION_NONE -> POLL : DROP) }
    :: d_step { at == DROP && stage != ACTION_NONE -> forget(); at = DROP }
    :: d_step { at == DROP && stage == ACTION_NONE -> files = NO_FILES; at = POLL }

    /* Not found: whether the action has ended or a file is missing is the server's to say. */
    :: d_step { at == DOWNLOAD && !away && (!in_hand(record_action) || !is_same) && files != ALL_FILES -> at = POLL }
    :: d_step { at == DOWNLOAD && !away && in_hand(record_action) && is_same && files != ALL_FILES ->
        files = (files == NO_FILES -> SOME_FILES : ALL_FILES) }
    :: d_step { at == DOWNLOAD && files == ALL_FILES -> stage = ACTION_WAITING; at = COMMIT }
    /* Not what was signed, or consent denied. */
    :: d_step { at == DOWNLOAD && files == ALL_FILES -> decide(0) }

    :: d_step { at == COMMIT && stage == ACTION_WAITING && (offered != record_action || must_reject || !may_go_on) ->
        at = POLL }
#ifdef BEGUN_DROPPED
    :: d_step { at == COMMIT && is_begun && !away && in_hand(record_action) && !is_same -> at = DROP }
#endif
    /* Not while another's upgrade is on its way: it takes the slot and the record with it. */
#ifdef POST_BEFORE_COMMIT
    :: d_step { at == COMMIT && service_is_free -> post(); at = COMMIT_LATE }
    :: d_step { at == COMMIT_LATE -> commit(); count_attempt(); at = NOTE_POSTED }
#else
    :: d_step { at == COMMIT && service_is_free && may_commit ->
        assert(is_begun || !in_hand(record_action) || is_same);
        commit(); count_attempt(); at = POST }
#endif
    :: d_step { at == COMMIT && service_rests -> at = GIVE_UP }
    /* No upgrade gets through between this look at the queue and the post. */
    :: d_step { at == POST && service_is_free -> post(); at = NOTE_POSTED }
    :: d_step { at == POST && !service_is_free -> at = AWAIT }
    :: d_step { at == NOTE_POSTED -> stage = ACTION_POSTED; at = AWAIT }

    /* The restart ends this wait. After a death of the agent alone the queue says how far it was. */
#ifdef POSTER_FORGOTTEN
    :: d_step { at == AWAIT && stage == ACTION_COMMITTED && queue && behind == 0 -> post(); at = NOTE_POSTED }
#else
    :: d_step { at == AWAIT && stage == ACTION_COMMITTED && queue && sender == RECORDED -> at = NOTE_POSTED }
    /* Committed once more: the process that posts must be the one in the record. */
    :: d_step { at == AWAIT && stage == ACTION_COMMITTED && service_is_free -> commit(); at = POST }
#endif
    :: d_step { at == AWAIT && must_reject -> server_hears() }
    :: d_step { at == AWAIT && service_rests -> at = GIVE_UP }
    :: d_step { at == GIVE_UP ->
#ifndef REQUEST_LEFT
        /* A service that starts late would take it. */
        if
        :: is_own(waiting) -> waiting = behind; behind = 0
        :: else -> behind = 0
        fi;
#endif
        if
        /* It has been taken in the meantime. */
        :: !service_rests -> at = (stage == ACTION_WAITING || !this_boot -> COMMIT : AWAIT)
#ifndef FAILURE_ON_TIMEOUT
        /* The slot may be switched: the next start will tell, whenever it comes. */
        :: service_rests && begun && !(this_boot && slot == slot_before) -> at = AWAIT_RESTART
#endif
        :: else -> decide(0)
        fi }

    :: d_step { at == JUDGE ->
        if
#if defined(RECORD_ALONE)
        :: result == RESULT_SUCCEEDED -> decide(1)
#elif defined(PARTITIONS_UNSEEN)
        :: result == RESULT_SUCCEEDED && slot != slot_before -> decide(1)
#elif defined(RECORD_NEEDED)
        :: result == RESULT_SUCCEEDED && slot != slot_before && image == record_package -> decide(1)
#else
        :: slot != slot_before && image == record_package -> decide(1)
#endif
        :: else ->
            if
            :: slot == slot_before && files == ALL_FILES && (!is_failure || failed_before) && attempts < ATTEMPTS ->
                at = COMMIT
            :: else -> judge_failure()
            fi
        fi }
#ifdef CARD_UNAWAITED
    :: d_step { at == JUDGE && slot == slot_before -> judge_failure() }
#endif
    /* A success that was found in an earlier boot and perhaps not heard. */
    :: d_step { at == CHECK_AGAIN ->
        this_boot = 1; success = (slot != slot_before && image == record_package); at = CLEAN }
    :: d_step { at == CLEAN -> files = NO_FILES; at = CLOSE }
    :: d_step { at == CLOSE && must_reject -> server_hears() }
    /* With other files under its id the result is kept, and the action is another one. */
    :: d_step { at == CLOSE && !away && !must_reject -> server_hears(); settled = 1; at = REMEMBER }
    :: d_step { at == REMEMBER -> assert(settled || refused == REFUSED_RESULTS);
#ifdef HISTORY_LATE
        removed = record_package; good[removed] = success; history_slot[removed] = (success -> slot_before : 0);
        forget(); at = FORGET }
    :: d_step { at == FORGET -> known[removed] = 1; removed = 0; at = POLL }
#else
        remember(record_package, success); at = FORGET }
    :: d_step { at == FORGET -> forget() }
#endif
    od
}

/* --- the upgrade service ------------------------------------------------------------------------- */

/* In place: first it is empty, then it is whole. What is the same is not written. */
inline rewrite(then)
{
    if
    :: !half && (result != new_result || state != new_state) -> half = 1; result = 0; state = 0
    :: else -> half = 0; result = new_result; state = new_state; service = then
    fi
}

active proctype upgrade_service()
{
end:
    do
    :: d_step { service == DOWN -> service = IDLE; queue = 1 }
    :: d_step { service == IDLE && waiting != 0 ->
        request = waiting; waiting = behind; behind = 0;
        assert(request == BY_HAND || (request == record_package && stage != ACTION_VERDICT));
        begun = 1; new_result = RESULT_NOT_SUCCEEDED; new_state = state; service = TAKEN }
    :: d_step { service == TAKEN -> rewrite(PREPARED) }
    :: d_step { service == PREPARED -> new_state = STATE_FAILURE; service = FAILING }
    :: d_step { service == PREPARED ->
        image = MIXED; image_slot = 1 - slot; half_written = (half_written || request != BY_HAND); service = WRITING }
    :: d_step { service == WRITING -> new_state = STATE_FAILURE; service = FAILING }
    :: d_step { service == WRITING ->
        assert(request == BY_HAND || files == ALL_FILES);
        image = request; half_written = 0; new_result = RESULT_SUCCEEDED; service = RECORDING }
    :: d_step { service == FAILING -> rewrite(ENDING) }
    :: d_step { service == RECORDING -> rewrite(SUCCEEDING) }
    :: d_step { service == SUCCEEDING -> new_state = STATE_SUCCESS; rewrite(SWITCHING) }
    :: d_step { service == SWITCHING -> slot = 1 - slot; service = DELETING }
    :: d_step { service == SWITCHING -> service = DELETING }
    :: d_step { service == DELETING ->
        if
        /* The manifest and its signature are not the service's to delete. */
        :: request != BY_HAND -> files = SOME_FILES
        :: else
        fi;
        service = ENDING }
    :: d_step { service == ENDING ->
        queue = 0; waiting = 0; behind = 0; sender = NOBODY; request = 0; new_result = 0; new_state = 0;
        service = RESTARTING }
    :: d_step { service == RESTARTING -> start_camera() }
    od
}

/* --- the world ----------------------------------------------------------------------------------- */

active proctype world()
{
    action[1] = OPEN;
    do
    :: d_step { left > 0 -> left--; start_camera() }
    /* What was switched to does not start: the boot loader takes the other slot. */
    :: d_step { left > 0 && slot == image_slot && image != FORMER -> left--; slot = 1 - slot; start_camera() }
    :: d_step { left > 0 -> left--; start_agent() }
    /* An idle service may be stopped and started, and so may one that is done. What dies in the middle is
       not started again before the camera: it could take a request that stands behind one by hand, when
       the slot is switched already, and switch it back. */
    :: d_step { left > 0 && service != DOWN && service != GONE ->
        left--; service = (service == IDLE || service == RESTARTING -> DOWN : GONE);
        half = 0; request = 0; new_result = 0; new_state = 0 }
    /* Lost on the way to the server, or back: the step is made again. */
    :: d_step { left > 0 && is_talking -> left-- }
    :: d_step { left > 0 && is_talking && at != POLL -> left--; server_hears() }
    /* By hand; behind the agent's request; before it, a moment after the agent has looked. */
    :: d_step { left > 0 && queue && waiting == 0 -> left--; waiting = BY_HAND; sender = ANOTHER }
    :: d_step { left > 0 && is_own(waiting) -> left--; behind = BY_HAND; sender = ANOTHER }
    :: d_step { left > 0 && is_own(waiting) -> left--; behind = waiting; waiting = BY_HAND }
    /* Empty: the service takes it for none. */
    :: d_step { left > 0 && service == IDLE && waiting == 0 && sender != ANOTHER -> left--; sender = ANOTHER }
#ifndef RELIABLE_SERVER
    /* Something between server and camera does not know the place. */
    :: d_step { left > 0 && must_close && is_same -> left--;
#ifdef NOT_FOUND_BELIEVED
        at = REMEMBER }
#else
        refused++; at = (refused == REFUSED_RESULTS -> REMEMBER : CLOSE) }
#endif
    /* It has said that it stored the result. */
    :: d_step { left > 0 && !away && (action[1] == SUCCEEDED || action[1] == FAILED) -> left--; action[1] = OPEN }
    :: d_step { left > 0 && !away && !replaced && in_hand(1) -> left--; replaced = 1 }
    /* A new server. */
    :: d_step { left > 0 && !away && !replaced && !in_hand(1) ->
        left--; replaced = 1; action[1] = OPEN; action[2] = (action[2] == UNASSIGNED -> UNASSIGNED : QUIT) }
    :: d_step { left > 0 && !away -> left--; away = 1 }
#endif
#ifdef STOP_CONCLUDED
    :: d_step { left > 0 && at == JUDGE -> left--; decide(0) }
#endif
    :: d_step { left > 0 && !away && offered != 0 && action[offered] == OPEN -> left--; action[offered] = CANCELLING }
    :: d_step { left > 0 && !away && offered != 0 -> left--; action[offered] = QUIT }
    :: d_step { left > 0 && !away && action[2] == UNASSIGNED ->
        left--; action[2] = OPEN;
        if
        :: action[1] == OPEN -> action[1] = CANCELLING
        :: else
        fi }
    :: left = 0; break
    od;
end:
    do
    :: timeout ->
        if
        :: d_step { at == AWAIT_RESTART -> start_camera() } /* somebody switches it off and on */
        :: else -> break
        fi
    od;
    assert(away || (stage == ACTION_NONE && files == NO_FILES && offered == 0));
    assert(!is_begun && !half_written);
    assert(slot != image_slot || image != package_of(1) || action[1] != FAILED);
    assert(slot != image_slot || image != 2 || action[2] != FAILED)
}
