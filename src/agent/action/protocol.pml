/*
 * A model of one action: update server, agent, upgrade service, boot loader, commit program and the
 * camera's storage. The new system is on trial until the commit program commits it; the boot loader or the
 * commit program can return to the former one instead, at any time (so the new system may be unhealthy,
 * hang or panic). What the agent observes of that are the steps of src/commit/trial_views.pml; the model
 * src/commit/trial.pml has the details. Between any two steps a disturbance can happen: the power is cut;
 * no trace of a trial is stored; the agent or the service dies; a request or its answer is lost; a proxy
 * answers a result with "not found"; the server loses a result, changes the files of an action, is never
 * reached again, or is replaced by a new server that uses the same ids; the operator cancels, force quits
 * or assigns a newer action; or a person starts a manual upgrade. A run has at most DISTURBANCES of these,
 * in any order. Each step of the model is one effect that another part can observe. scripts/check_protocol
 * explores all possible runs. With ONE_COPY the camera has one copy of each partition and no trials: an
 * upgrade overwrites the running system, and the boot loader may start the former slot. With
 * RELIABLE_SERVER the server stores all results, keeps the files and is always reached, so that a run can
 * have more of the other disturbances.
 *
 * Properties that are checked:
 *   - "success" is never sent for a system that does not run or is not committed, nor for files that are not
 *     the offered ones
 *   - during a trial no request is posted, and the cancellation of its action is not confirmed. A package
 *     whose system was given up is not posted again, unless a manual upgrade has replaced the trial's record
 *   - with two copies every start finds a whole system
 *   - every run ends. At its end the system is committed, no action is open, no file is left, and
 *     "failure" was not sent for the system that the camera starts. If the server is gone, no upgrade is
 *     left unfinished
 *   - there are never two requests of the agent at once, and none for an action that has its result, even
 *     when the action is offered again
 *   - no upgrade is begun for files that are no longer offered. An upgrade that has begun is not given up
 *     while its package is complete, except after ATTEMPTS requests
 *   - a result is not given up while the server waits for it, except after REFUSED_RESULTS refusals
 *   - the service finds the complete package as long as it may read it
 *
 * Not modelled: the content of requests and answers, progress, and what the agent waits for, because any
 * step can take any time. (Before the commit it waits for consent, window and battery, after a start for
 * slot, partitions and card.) The wait for the service is limited, so the model can end it at any time at
 * which the service does nothing. Reading the offer and the commit are one step, and so are reading the
 * offer and sending the result: a camera cannot know what the server changes in between.
 *
 * Ablation: each of these names, given with spin -D, removes one precaution, and one of the properties
 * above is then violated:
 *   POST_BEFORE_COMMIT      the request is posted before the record shows that it may have been posted
 *   RECORD_ALONE            the outcome record alone decides on success
 *   POSTER_FORGOTTEN        after the agent has died the request is posted again, whoever sent the last one
 *   PARTITIONS_UNCHECKED    outcome record and slot decide on success, the partitions are not compared
 *   RECORD_NEEDED           a running new system counts as failed when the outcome record says so
 *   SUCCESS_NOT_RECHECKED   a success that was found before a restart is sent after it without a new check
 *   BEGUN_UNCHECKED         a request is posted whenever nobody has sent to the queue
 *   REQUEST_LEFT            when the wait for the service ends, the request stays in the queue
 *   FAILURE_ON_TIMEOUT      the end of that wait is a failure, even if the slot may have been switched
 *   ALWAYS_AGAIN            requests for one action are not counted
 *   HISTORY_UNCHECKED       an action that is offered again is carried out again
 *   HISTORY_LATE            the record is removed before the history has the result
 *   MANIFEST_UNCHECKED      an action is identified by its id alone, not by its manifest
 *   NOT_FOUND_BELIEVED      a result that was answered with "not found" is not sent again
 *   OFFER_UNCHECKED         the commit is made although other files are offered under the same id
 *   OFFER_UNCHECKED_LATE    the result is sent although other files are offered under the same id
 *   BEGUN_DROPPED           an upgrade that has begun is dropped for other files under the same id
 *   BEGUN_ASKS_FIRST        an upgrade that has begun continues only while the server offers it
 *   STOP_IS_FAILURE         an agent that is stopped before it can determine the result stores a failure
 *   CARD_NOT_AWAITED        a package on a card that is not mounted yet counts as lost
 *   SUCCESS_IN_TRIAL        a system that runs counts as success although it is on trial
 *   CHECKED_IN_TRIAL        a success that was found earlier is checked again although a trial has not ended
 *   POSTED_IN_TRIAL         a request is posted although a trial has not ended
 *   MANUAL_IN_TRIAL         otactl posts a request although a trial has not ended
 *   CANCELLED_IN_TRIAL      a cancellation during the trial is confirmed
 *   GIVEN_UP_AGAIN          an upgrade whose system was given up is tried again
 *   OLD_TRIAL_BELIEVED      the record of a trial before the commit counts as that of this action
 */
#ifndef DISTURBANCES
#define DISTURBANCES 5
#endif
#define ATTEMPTS 3        /* requests for one action */
#define REFUSED_RESULTS 2 /* refusals of one result; the agent's limit is higher */

#include "trial_views.pml"

/* --- the server ---------------------------------------------------------------------------------- */

mtype:status = { UNASSIGNED, OPEN, CANCELLING, CANCELED, QUIT, SUCCEEDED, FAILED };
mtype:status action[3] = UNASSIGNED; /* action 1, and action 2, which is assigned later; 0 is unused */

#define is_pending(a) (action[a] == OPEN || action[a] == CANCELLING)
/* The package to be installed: 1 for action 1, or 3 after the server has replaced it; 2 for action 2. */
#define REPLACED 3
bit replaced;
#define package_of(a) (a == 1 && replaced -> REPLACED : a)
bit away; /* the server is no longer reached */
/* The newer action is not offered before the older one has ended. */
#define offered (is_pending(1) -> 1 : (is_pending(2) -> 2 : 0))

/* --- storage ------------------------------------------------------------------------------------- */

/* The agent's record of its action. It is always replaced as a whole. */
mtype:stage = { ACTION_NONE, ACTION_DOWNLOADING, ACTION_WAITING, ACTION_COMMITTED, ACTION_POSTED, ACTION_RESULT };
mtype:stage stage = ACTION_NONE;
byte record_action, record_package;
bit this_boot;     /* the record's boot id is that of the running kernel */
bit slot_before;
bit failed_before; /* the outcome record before the commit, reduced to whether it was a failure */
bit old_trial;     /* the trial's record is that of before the commit, and contains a reason */
byte attempts;
bit success;       /* the result */
byte refused;      /* how often the server refused the result */

/* The history, for each package: whether it has a result, whether that is a success, and its slot_before. */
bit known[4], good[4], history_slot[4];

mtype:files = { NO_FILES, SOME_FILES, ALL_FILES };
mtype:files files = NO_FILES; /* files of the action's package on the card */

/* The outcome record; 0 where a power cut interrupted its writing. */
#define RESULT_SUCCEEDED 1
#define RESULT_NOT_SUCCEEDED 2
#define STATE_SUCCESS 3
#define STATE_FAILURE 4
byte result = RESULT_SUCCEEDED, state = STATE_SUCCESS;

/* Content of the partitions; 1 to 3 are the packages. */
#define FORMER 4
#define MANUAL 5
#define MIXED 6
#ifdef ONE_COPY
byte image = FORMER;
bit image_slot; /* the slot that starts `image` */
#define content_of(s) (s == image_slot -> image : MIXED)
#define read_content image
#else
byte content[2] = FORMER;
#define content_of(s) content[s]
#define read_content content[slot]
#endif
bit half_written; /* by an upgrade of the agent that was not given up yet */
bit slot;
mtype:view view = SETTLED; /* of the trial, as other programs observe it */

/* --- state that a restart clears ----------------------------------------------------------------- */

byte running = FORMER; /* content of the started partitions when the camera started */
bit begun;             /* an upgrade has begun since the camera's start: the service's pid file exists */

/* The queue stays when the service dies, and names the last sender. */
bit queue;
byte waiting, second; /* the first and the second request in the queue: a package, MANUAL or 0 */
mtype:sender = { NOBODY, RECORDED, ANOTHER };
mtype:sender sender = NOBODY; /* RECORDED: the process that the agent's record names */

mtype:service = { DOWN, IDLE, TAKEN, PREPARED, WRITING, FAILING, RECORDING, SUCCEEDING, SWITCHING, ARMING, DELETING,
                  ENDING, RESTARTING, GONE };
mtype:service service = DOWN;
bit half;     /* the first of two steps of rewriting the outcome record is done */
byte request; /* the request that the service works on */
byte new_result, new_state;

/* The agent's next step. */
mtype:at = { POLL, DOWNLOAD, COMMIT, COMMIT_LATE, POST, NOTE_POSTED, AWAIT, GIVE_UP, AWAIT_RESTART, JUDGE,
             CHECK_AGAIN, CLEAN, CLOSE, REMEMBER, FORGET, CONFIRM, DROP };
mtype:at at = POLL;
byte polled; /* the action whose cancellation the last poll returned */
byte given_up; /* the package whose system was given up last */
bit delivered; /* the server has accepted the result, or does not wait for it */
#ifdef HISTORY_LATE
byte removed; /* the package of the removed record */
#endif

byte left = DISTURBANCES;

/* --- starting ------------------------------------------------------------------------------------ */

inline start_agent()
{
    polled = 0; delivered = 0;
#ifdef HISTORY_LATE
    removed = 0;
#endif
    if
    :: stage == ACTION_COMMITTED || stage == ACTION_POSTED -> at = (this_boot -> AWAIT : JUDGE)
#ifdef SUCCESS_NOT_RECHECKED
    :: stage == ACTION_RESULT -> at = CLEAN
#else
    :: stage == ACTION_RESULT -> at = (success && !this_boot -> CHECK_AGAIN : CLEAN)
#endif
    :: else -> at = (stage == ACTION_NONE && files != NO_FILES -> DROP : POLL)
    fi
}

inline observe(next)
{
    assert(may_follow(view, next));
    view = next
}

inline start_camera()
{
    running = content_of(slot);
#ifndef ONE_COPY
    assert(running != MIXED);
    view = (view == ARMED -> TRIAL : view);
#endif
    begun = 0; queue = 0; waiting = 0; second = 0; sender = NOBODY;
    service = DOWN; half = 0; request = 0; new_result = 0; new_state = 0;
    this_boot = 0;
    start_agent()
}

/* --- the agent ----------------------------------------------------------------------------------- */

#define is_failure (result == RESULT_NOT_SUCCEEDED && state == STATE_FAILURE)

inline commit()
{
    stage = ACTION_COMMITTED; this_boot = 1; slot_before = slot; failed_before = is_failure;
    old_trial = (view == GIVEN_UP)
}

#define is_own(message) (message != 0 && message != MANUAL)

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
    assert(!is_own(waiting) && second == 0 && !is_own(request) && !known[record_package]);
    assert(view != TRIAL && record_package != given_up);
    if
    :: waiting == 0 -> waiting = record_package
    :: else -> second = record_package
    fi;
    sender = RECORDED
}

inline decide(good_result)
{
    stage = ACTION_RESULT; success = good_result; this_boot = 1; failed_before = 0; old_trial = 0; attempts = 0;
    at = CLEAN; half_written = 0
}

inline judge_failure()
{
    assert(!half_written || slot != slot_before || files != ALL_FILES || attempts >= ATTEMPTS || is_failure);
    decide(0)
}

inline forget()
{
    stage = ACTION_NONE; record_action = 0; record_package = 0; success = 0; this_boot = 0; slot_before = 0;
    old_trial = 0; attempts = 0; refused = 0; delivered = 0; at = POLL
}

inline add_to_history(package, good_result)
{
    known[package] = 1; good[package] = good_result; history_slot[package] = (good_result -> slot_before : 0)
}

/* The server has lost the result or never received it: the result from the history is sent. */
inline resend_result(package)
{
    stage = ACTION_RESULT; record_action = offered; record_package = package;
    success = good[package]; slot_before = history_slot[package]; this_boot = 0;
    at = (success -> CHECK_AGAIN : CLEAN)
}

#define is_same (package_of(record_action) == record_package)
#define is_begun (stage == ACTION_COMMITTED || stage == ACTION_POSTED)
#define poll_has_effect (!away && (stage != ACTION_NONE || offered != 0))
#define must_reject (!away && offered == record_action && action[offered] == CANCELLING)
#define must_close (!away && at == CLOSE && is_pending(record_action) && !must_reject)
/* The agent waits until the new system is committed or given up. */
#define awaits_decision (at == JUDGE && !is_settled(view))
#define is_exchanging ((at == POLL && poll_has_effect) || (!away && (at == CONFIRM || at == CLOSE)) || \
                    ((at == AWAIT || awaits_decision) && must_reject))

/* How the server changes by the message that the agent sends in this step. */
inline server_receives()
{
    if
    :: at == CONFIRM && action[polled] == CANCELLING ->
        assert(!is_begun || view != TRIAL);
        action[polled] = CANCELED
    :: (at == AWAIT || at == CLOSE || awaits_decision) && must_reject -> action[record_action] = OPEN
#if defined(OFFER_UNCHECKED_LATE) || defined(MANIFEST_UNCHECKED)
    :: must_close ->
#else
    :: must_close && is_same ->
#endif
        assert(!success || (running == record_package && is_same && view != TRIAL));
        action[record_action] = (success -> SUCCEEDED : FAILED)
    :: else
    fi
}

#ifdef POSTED_IN_TRIAL
#define is_decided 1
#else
#define is_decided is_settled(view)
#endif
#ifdef BEGUN_UNCHECKED
#define service_is_free (queue && sender == NOBODY && is_decided)
#else
#define service_is_free (queue && sender == NOBODY && !begun && is_decided)
#endif
/* The record of a trial contains a reason, and that trial began after the commit. */
#if defined(GIVEN_UP_AGAIN)
#define is_given_up 0
#elif defined(OLD_TRIAL_BELIEVED)
#define is_given_up (view == GIVEN_UP)
#else
#define is_given_up (view == GIVEN_UP && !old_trial)
#endif
#ifdef SUCCESS_IN_TRIAL
#define may_judge (is_settled(view) || (slot != slot_before && read_content == record_package))
#else
#define may_judge is_settled(view)
#endif
#ifdef CHECKED_IN_TRIAL
#define may_check_again 1
#else
#define may_check_again is_settled(view)
#endif
#ifdef BEGUN_ASKS_FIRST
#define may_commit (!away && is_pending(record_action) && is_same)
#else
#define may_commit (is_begun || !is_pending(record_action) || may_go_on)
#endif
/* The service does nothing: no posted request will be processed, or none yet. */
#define service_rests (service == DOWN || service == GONE || \
                       (service == IDLE && waiting == 0 && (sender != NOBODY || begun)))

/* The package whose result is looked up in the history; 0 never has a result. */
#if defined(HISTORY_UNCHECKED)
#define known_of(a) 0
#elif defined(MANIFEST_UNCHECKED)
#define known_of(a) (a == 1 && !known[1] -> REPLACED : a)
#else
#define known_of(a) package_of(a)
#endif
/* Whether the offer is still the package that the agent works on. */
#ifdef OFFER_UNCHECKED
#define may_go_on (is_same || stage != ACTION_DOWNLOADING)
#else
#define may_go_on is_same
#endif

active proctype agent()
{
end:
    do
    :: d_step { at == POLL && poll_has_effect ->
        if
        :: stage != ACTION_NONE && offered != record_action -> at = DROP
        :: action[offered] == CANCELLING -> polled = offered; at = CONFIRM
        :: stage != ACTION_NONE && offered == record_action && action[offered] == OPEN && !may_go_on -> at = DROP
        :: stage == ACTION_NONE && action[offered] == OPEN && known[known_of(offered)] ->
            resend_result(known_of(offered))
        :: stage == ACTION_NONE && action[offered] == OPEN && !known[known_of(offered)] ->
            stage = ACTION_DOWNLOADING; record_action = offered; record_package = package_of(offered); at = DOWNLOAD
        :: stage == ACTION_DOWNLOADING && offered == record_action && action[offered] == OPEN && may_go_on ->
            at = DOWNLOAD
        :: stage == ACTION_WAITING && offered == record_action && action[offered] == OPEN && may_go_on -> at = COMMIT
        fi }
    :: d_step { at == CONFIRM && !away -> server_receives(); polled = 0; at = (stage == ACTION_NONE -> POLL : DROP) }
    :: d_step { at == DROP && stage != ACTION_NONE -> forget(); at = DROP }
    :: d_step { at == DROP && stage == ACTION_NONE -> files = NO_FILES; at = POLL }

    /* Not found. The next poll shows whether the action has ended or a file is missing. */
    :: d_step { at == DOWNLOAD && !away && (!is_pending(record_action) || !is_same) && files != ALL_FILES -> at = POLL }
    :: d_step { at == DOWNLOAD && !away && is_pending(record_action) && is_same && files != ALL_FILES ->
        files = (files == NO_FILES -> SOME_FILES : ALL_FILES) }
    :: d_step { at == DOWNLOAD && files == ALL_FILES -> stage = ACTION_WAITING; at = COMMIT }
    /* The content differs from the signed manifest, or consent was denied. */
    :: d_step { at == DOWNLOAD && files == ALL_FILES -> decide(0) }

    :: d_step { at == COMMIT && stage == ACTION_WAITING && (offered != record_action || must_reject || !may_go_on) ->
        at = POLL }
#ifdef BEGUN_DROPPED
    :: d_step { at == COMMIT && is_begun && !away && is_pending(record_action) && !is_same -> at = DROP }
#endif
    /* Not while another sender's upgrade is running, because that changes slot and outcome record. */
#ifdef POST_BEFORE_COMMIT
    :: d_step { at == COMMIT && service_is_free -> post(); at = COMMIT_LATE }
    :: d_step { at == COMMIT_LATE -> commit(); count_attempt(); at = NOTE_POSTED }
#else
    :: d_step { at == COMMIT && service_is_free && may_commit ->
        assert(is_begun || !is_pending(record_action) || is_same);
        commit(); count_attempt(); at = POST }
#endif
    :: d_step { at == COMMIT && service_rests -> at = GIVE_UP }
    /* No other upgrade can start between this check of the queue and the post. */
    :: d_step { at == POST && service_is_free -> post(); at = NOTE_POSTED }
    :: d_step { at == POST && !service_is_free -> at = AWAIT }
    :: d_step { at == NOTE_POSTED -> stage = ACTION_POSTED; at = AWAIT }

    /* The restart ends this wait. If only the agent died, the queue shows whether it had posted. */
#ifdef POSTER_FORGOTTEN
    :: d_step { at == AWAIT && stage == ACTION_COMMITTED && queue && second == 0 -> post(); at = NOTE_POSTED }
#else
    :: d_step { at == AWAIT && stage == ACTION_COMMITTED && queue && sender == RECORDED -> at = NOTE_POSTED }
    /* Committed again, because the record must name the process that posts. */
    :: d_step { at == AWAIT && stage == ACTION_COMMITTED && service_is_free -> commit(); at = POST }
#endif
    :: d_step { at == AWAIT && must_reject -> server_receives() }
    :: d_step { at == AWAIT && service_rests -> at = GIVE_UP }
    :: d_step { at == GIVE_UP ->
#ifndef REQUEST_LEFT
        /* A service that starts late would process the request. */
        if
        :: is_own(waiting) -> waiting = second; second = 0
        :: else -> second = 0
        fi;
#endif
        if
        /* The service has taken the request in the meantime. */
        :: !service_rests -> at = (stage == ACTION_WAITING || !this_boot -> COMMIT : AWAIT)
#ifndef FAILURE_ON_TIMEOUT
        /* The slot may have been switched: the next start shows the result, whenever it is. */
        :: service_rests && begun && !(this_boot && slot == slot_before) -> at = AWAIT_RESTART
#endif
        :: else -> decide(0)
        fi }

#ifdef CANCELLED_IN_TRIAL
    :: d_step { awaits_decision && must_reject && !away -> polled = offered; at = CONFIRM }
#endif
    :: d_step { awaits_decision && must_reject -> server_receives() }
    :: d_step { at == JUDGE && may_judge ->
        if
#if defined(RECORD_ALONE)
        :: result == RESULT_SUCCEEDED -> decide(1)
#elif defined(PARTITIONS_UNCHECKED)
        :: result == RESULT_SUCCEEDED && slot != slot_before -> decide(1)
#elif defined(RECORD_NEEDED)
        :: result == RESULT_SUCCEEDED && slot != slot_before && read_content == record_package -> decide(1)
#else
        :: slot != slot_before && read_content == record_package -> decide(1)
#endif
        :: else ->
            if
            :: slot == slot_before && files == ALL_FILES && (!is_failure || failed_before) && attempts < ATTEMPTS &&
               !is_given_up ->
                at = COMMIT
            :: else -> judge_failure()
            fi
        fi }
#ifdef CARD_NOT_AWAITED
    :: d_step { at == JUDGE && may_judge && slot == slot_before -> judge_failure() }
#endif
    /* A success that was found before the last restart and possibly not received by the server. */
    :: d_step { at == CHECK_AGAIN && may_check_again ->
        this_boot = 1; success = (slot != slot_before && read_content == record_package); at = CLEAN }
    :: d_step { at == CLEAN -> files = NO_FILES; at = CLOSE }
    :: d_step { at == CLOSE && must_reject -> server_receives() }
    /* If other files are offered under its id, the result goes only to the history and the offer is new. */
    :: d_step { at == CLOSE && !away && !must_reject -> server_receives(); delivered = 1; at = REMEMBER }
    :: d_step { at == REMEMBER -> assert(delivered || refused == REFUSED_RESULTS);
#ifdef HISTORY_LATE
        removed = record_package; good[removed] = success; history_slot[removed] = (success -> slot_before : 0);
        forget(); at = FORGET }
    :: d_step { at == FORGET -> known[removed] = 1; removed = 0; at = POLL }
#else
        add_to_history(record_package, success); at = FORGET }
    :: d_step { at == FORGET -> forget() }
#endif
    od
}

/* --- the upgrade service ------------------------------------------------------------------------- */

/* Rewrites the record in place: first it is empty, then complete. Unchanged content is not written. */
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
        request = waiting; waiting = second; second = 0;
        assert(request == MANUAL || (request == record_package && stage != ACTION_RESULT));
        begun = 1; new_result = RESULT_NOT_SUCCEEDED; new_state = state; service = TAKEN }
    :: d_step { service == TAKEN -> rewrite(PREPARED) }
    :: d_step { service == PREPARED -> new_state = STATE_FAILURE; service = FAILING }
    :: d_step { service == PREPARED ->
#ifdef ONE_COPY
        image = MIXED; image_slot = 1 - slot;
#else
        content[1 - slot] = MIXED;
#endif
        half_written = (half_written || request != MANUAL); service = WRITING }
    :: d_step { service == WRITING -> new_state = STATE_FAILURE; service = FAILING }
    :: d_step { service == WRITING ->
        assert(request == MANUAL || files == ALL_FILES);
#ifdef ONE_COPY
        image = request;
#else
        content[1 - slot] = request;
#endif
        half_written = 0; new_result = RESULT_SUCCEEDED; service = RECORDING }
    :: d_step { service == FAILING -> rewrite(ENDING) }
    :: d_step { service == RECORDING -> rewrite(SUCCEEDING) }
    :: d_step { service == SUCCEEDING -> new_state = STATE_SUCCESS; rewrite(SWITCHING) }
#ifdef ONE_COPY
    :: d_step { service == SWITCHING -> slot = 1 - slot; service = DELETING }
#else
    /* The trial is recorded, then armed. */
    :: d_step { service == SWITCHING && view != TRIAL ->
        given_up = (request == MANUAL -> 0 : given_up);
        observe(UNSETTLED); old_trial = 0; service = ARMING }
    :: d_step { service == ARMING -> slot = 1 - slot; observe(ARMED); service = DELETING }
    :: d_step { service == ARMING -> service = DELETING }
#endif
    :: d_step { service == SWITCHING -> service = DELETING }
    :: d_step { service == DELETING ->
        if
        /* The service deletes neither the manifest nor its signature. */
        :: request != MANUAL -> files = SOME_FILES
        :: else
        fi;
        service = ENDING }
    :: d_step { service == ENDING ->
        queue = 0; waiting = 0; second = 0; sender = NOBODY; request = 0; new_result = 0; new_state = 0;
        service = RESTARTING }
    :: d_step { service == RESTARTING -> start_camera() }
    od
}

/* --- boot loader and commit program -------------------------------------------------------------- */

#ifndef ONE_COPY
inline return_to_former(next)
{
    given_up = (next == UNSETTLED && running != MANUAL -> running : given_up);
    slot = 1 - slot;
    observe(next);
    start_camera()
}

/* Also if it never starts the slot that is selected. */
active proctype boot_loader()
{
end:
    do
    :: d_step { view == TRIAL -> return_to_former(UNSETTLED) }
    :: d_step { left > 0 && view == TRIAL -> left--; return_to_former(SETTLED) }
    :: d_step { left > 0 && view == TRIAL -> left--; return_to_former(GIVEN_UP) }
    od
}

active proctype commit_program()
{
end:
    do
    :: d_step { view == TRIAL -> observe(SETTLED) }
    :: d_step { view == TRIAL -> return_to_former(UNSETTLED) }
    :: d_step { view == UNSETTLED && service != ARMING -> observe(GIVEN_UP); old_trial = 0 }
    od
}
#endif

/* --- the world ----------------------------------------------------------------------------------- */

#ifdef MANUAL_IN_TRIAL
#define may_send 1
#else
#define may_send (view != TRIAL && view != ARMED) /* otactl */
#endif

active proctype world()
{
    action[1] = OPEN;
    do
    :: d_step { left > 0 -> left--; start_camera() }
#ifdef ONE_COPY
    /* The new system does not start, and the boot loader starts the other slot. */
    :: d_step { left > 0 && slot == image_slot && image != FORMER -> left--; slot = 1 - slot; start_camera() }
#else
    /* The trial cannot be recorded. */
    :: d_step { left > 0 && service == SWITCHING && view != TRIAL ->
        left--; given_up = (request == MANUAL -> 0 : given_up);
        slot = 1 - slot; observe(ARMED); service = DELETING }
#endif
    :: d_step { left > 0 -> left--; start_agent() }
    /* An idle service may be stopped and started again, and so may one that has finished. One that dies
       during an upgrade is started again only with the camera. Otherwise it could process a second
       request when the slot is switched already, and switch the slot back. */
    :: d_step { left > 0 && service != DOWN && service != GONE ->
        left--; service = (service == IDLE || service == RESTARTING -> DOWN : GONE);
        half = 0; request = 0; new_result = 0; new_state = 0 }
    /* A request or its answer is lost: the step is repeated. */
    :: d_step { left > 0 && is_exchanging -> left-- }
    :: d_step { left > 0 && is_exchanging && at != POLL -> left--; server_receives() }
    /* A manual request: alone; after the agent's request; or before it, just after the agent's check. */
    :: d_step { left > 0 && queue && waiting == 0 && may_send -> left--; waiting = MANUAL; sender = ANOTHER }
    :: d_step { left > 0 && is_own(waiting) -> left--; second = MANUAL; sender = ANOTHER }
    :: d_step { left > 0 && is_own(waiting) -> left--; second = waiting; waiting = MANUAL }
    /* An empty message, which the service ignores. */
    :: d_step { left > 0 && service == IDLE && waiting == 0 && sender != ANOTHER -> left--; sender = ANOTHER }
#ifndef RELIABLE_SERVER
    /* A proxy answers "not found". */
    :: d_step { left > 0 && must_close && is_same -> left--;
#ifdef NOT_FOUND_BELIEVED
        at = REMEMBER }
#else
        refused++; at = (refused == REFUSED_RESULTS -> REMEMBER : CLOSE) }
#endif
    /* The server loses a result that it has confirmed. */
    :: d_step { left > 0 && !away && (action[1] == SUCCEEDED || action[1] == FAILED) -> left--; action[1] = OPEN }
    :: d_step { left > 0 && !away && !replaced && is_pending(1) -> left--; replaced = 1 }
    /* A new server with the same ids. */
    :: d_step { left > 0 && !away && !replaced && !is_pending(1) ->
        left--; replaced = 1; action[1] = OPEN; action[2] = (action[2] == UNASSIGNED -> UNASSIGNED : QUIT) }
    :: d_step { left > 0 && !away -> left--; away = 1 }
#endif
#ifdef STOP_IS_FAILURE
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
        :: d_step { at == AWAIT_RESTART || view == ARMED -> start_camera() } /* a person turns it off and on */
        :: else -> break
        fi
    od;
    assert(away || (stage == ACTION_NONE && files == NO_FILES && offered == 0));
    assert(!is_begun && !half_written);
#ifndef ONE_COPY
    assert(is_settled(view) && running == content_of(slot));
#endif
    assert(content_of(slot) != package_of(1) || action[1] != FAILED);
    assert(content_of(slot) != 2 || action[2] != FAILED)
}
