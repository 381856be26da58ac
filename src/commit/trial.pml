/*
 * A model of trials: boot loader, commit program, slot-switch script and the storage that they share. At
 * most UPGRADES times an upgrade writes the other slot; its system is then healthy or unhealthy, crashes
 * while its health is checked, or does not get that far: the kernel panics or hangs until the watchdog
 * restarts the camera, or a partition cannot be loaded. Between any two steps a disturbance can happen: the
 * power is cut; a store of the environment or of the record has no effect, or the boot loader cannot store
 * its count; the record is lost during a trial; both copies of the environment are lost, so that its
 * default values apply; the check of a healthy system fails until the deadline; the camera stops in an
 * orderly way; the commit program is killed and run again; or the service dies before it requests the
 * restart. A run has at most DISTURBANCES of these. At its end a person switches the camera off and on until
 * something is decided. scripts/check_protocol explores all possible runs.
 *
 * Properties that are checked:
 *   - a system is only committed after its check, and what is recorded or observed as committed is committed
 *     for the boot loader too
 *   - after a commit only an upgrade changes the slot
 *   - every run ends, so there is no endless restart; at its end the camera runs a whole, committed system.
 *     If that is not the new one, it has recorded a reason
 *   - what other programs observe changes only as trial_views.pml lists
 *
 * Not modelled: partitions (a slot has one content), time (a check ends at any time, the deadline passes
 * at any time), what a person decides, and torn stores: record and environment have two copies, so that a
 * power cut leaves the old content or the new one. Also a run that loses all traces of a trial in both, a
 * boot loader that ignores the selected slot, and a board whose boot loader and tools use different
 * environments. If both copies of the environment are lost, its default values are assumed to name the
 * committed slot. A board whose boot loader does not count (counting is 0) is assumed not to panic, and to
 * lose neither record nor environment.
 *
 * Ablation: each of these names, given with spin -D, removes one precaution, and one of the properties
 * above is then violated:
 *   ARM_IN_STEPS             the slot is selected in one store, and the trial begins in the next one
 *   ARM_UNRECORDED           the record does not show that a trial is armed
 *   COUNT_AFTER_LOAD         the boot loader counts when it has loaded a system, not before
 *   COUNT_UNLIMITED          the boot loader never gives up
 *   FALLBACK_IN_STEPS        the boot loader selects the former slot in one store, and ends the trial later
 *   FALLBACK_UNTRACED        the boot loader does not store that it has returned
 *   FLAG_UNCHECKED           without a record the running system counts as committed
 *   COUNT_AFTER_CHECK        the program counts the start after the check of the health
 *   DEADLINE_MISSING         the health is checked until it is good
 *   COMMITTING_UNRECORDED    the environment is stored before the record shows that the commit has begun
 *   COMMIT_NOT_READ_BACK     the commit is recorded without reading the environment
 *   ROLLBACK_TOGGLES         the rollback selects the slot that is not selected
 *   ROLLBACK_ABANDONED       after ROLLBACK_RESTARTS attempts the environment is not stored again
 *   RETURN_CHECKED           after a return the health of the former system is checked too
 *   UPGRADE_IN_TRIAL         an upgrade is begun during a trial
 */
#ifndef DISTURBANCES
#define DISTURBANCES 4
#endif
#define UPGRADES 2
#define START_LIMIT 3
#define ROLLBACK_RESTARTS 3
#define NO_SLOT 2

#include "trial_views.pml"

/* --- storage ------------------------------------------------------------------------------------- */

mtype:content = { HEALTHY, UNHEALTHY, CRASHING, PANICKING, INCOMPLETE };
mtype:content content[2] = HEALTHY;

/* The boot environment: bootsystem, upgrade_available, bootcount, rolled_back. */
bit selected, flag;
byte count, rolled_back = NO_SLOT;

mtype:phase = { NO_RECORD, COMMITTED, RECORDED_ARMED, TRYING, COMMITTING, ROLLING_BACK };
mtype:phase phase = COMMITTED;
byte committed, trial = NO_SLOT;
byte starts, restarts;
bit reason;
bit this_boot; /* the record's start is the present one */

/* --- state that a restart clears ----------------------------------------------------------------- */

mtype:at = { START, FALL_BACK, FALL_BACK_LATE, LOAD, OBSERVE, COUNT, CHECK, COUNT_LATE, RECORD_COMMITTING, STORE_COMMIT,
             READ_COMMIT, RECORD_COMMIT, RECORD_ROLLBACK, STORE_ROLLBACK, READ_ROLLBACK, RESTART, STORE_FINISH,
             RECORD_FINISH, RECORD_STOP, STORE_STOP, IDLE, WRITING, RECORD_ARMED, STORE_ARMED, STORE_ARMED_LATE,
             READ_ARMED, SWITCHED };
mtype:at at = START;
bit running;
/* The commit program's copy of the record. */
byte own_trial, own_starts, own_restarts;
bit own_reason, own_boot, is_counted;

/* --- what the properties are about --------------------------------------------------------------- */

bit counting;    /* the boot loader counts */
bit settled_slot; /* the committed system */
bit is_armed;    /* an upgrade has selected the other slot since */
bit proven[2] = 1;
bit is_unrecorded; /* the record of the trial could not be stored, or is lost */
bit is_tried;    /* the upgrade's system was selected and is not committed */
mtype:view view = SETTLED, next_view = SETTLED;
byte upgrades = UPGRADES, left = DISTURBANCES;

/* --- the table of states (state.h) --------------------------------------------------------------- */

#define other(slot) (1 - slot)
#define is_selected (selected == running)
#define is_own_record ((phase == COMMITTED -> committed : trial) == running)
#define has_fallen_back (rolled_back == other(running) && !(phase == COMMITTED && trial == rolled_back && reason))
#define is_tried_phase (phase == RECORDED_ARMED || phase == TRYING || phase == COMMITTING)
#define is_rolling_back (phase == ROLLING_BACK && trial == running)
#define is_on_trial (is_selected && !is_rolling_back && phase != ROLLING_BACK && (flag || \
    ((phase == RECORDED_ARMED || phase == TRYING) && is_own_record) || \
    (phase == COMMITTED && !is_own_record && !has_fallen_back)))

#define view_now \
    (is_rolling_back || (!is_selected && rolled_back == running) -> TRIAL : \
    (!is_selected -> ARMED : \
    (phase == ROLLING_BACK -> UNSETTLED : \
    (flag || (is_tried_phase && is_own_record) -> TRIAL : \
    (has_fallen_back || is_tried_phase || phase == NO_RECORD -> UNSETTLED : \
    (!is_own_record -> TRIAL : \
    (reason -> GIVEN_UP : SETTLED)))))))

inline look()
{
    next_view = view_now;
    assert(may_follow(view, next_view));
    view = next_view; next_view = SETTLED;
    assert(!is_settled(view) || (!flag && proven[running] && running == settled_slot))
}

inline restart()
{
    at = START; this_boot = 0;
    own_trial = 0; own_starts = 0; own_restarts = 0; own_reason = 0; own_boot = 0; is_counted = 0
}

inline record(new_phase, slot)
{
    phase = new_phase; committed = slot; trial = own_trial; starts = own_starts; restarts = own_restarts;
    reason = own_reason; this_boot = own_boot
}

/* Nothing is kept in memory after the decision, and the numbers of a trial that has ended are not used. */
inline end_program()
{
    own_trial = 0; own_starts = 0; own_restarts = 0; own_reason = 0; own_boot = 0; is_counted = 0; at = IDLE
}

/* --- boot loader --------------------------------------------------------------------------------- */

inline load()
{
    running = selected;
    assert(is_armed || running == settled_slot);
    if
    :: content[running] == PANICKING || content[running] == INCOMPLETE -> at = START
    :: else -> at = OBSERVE;
#ifdef COUNT_AFTER_LOAD
        count = (flag && counting -> count + 1 : count);
#endif
        look()
    fi
}

active proctype boot_loader()
{
end:
    do
    :: d_step { at == START ->
#ifndef COUNT_AFTER_LOAD
        count = (flag && counting -> count + 1 : count);
#endif
#ifdef COUNT_UNLIMITED
        count = (count > START_LIMIT -> START_LIMIT : count);
#endif
        at = (flag && counting && count > START_LIMIT -> FALL_BACK : LOAD) }
#ifdef FALLBACK_IN_STEPS
    :: d_step { at == FALL_BACK -> rolled_back = selected; selected = other(selected); at = FALL_BACK_LATE }
    :: d_step { at == FALL_BACK_LATE -> flag = 0; count = 0; is_armed = 0; at = LOAD }
#else
    :: d_step { at == FALL_BACK ->
#ifndef FALLBACK_UNTRACED
        rolled_back = selected;
#endif
        selected = other(selected); flag = 0; count = 0; is_armed = 0; at = LOAD }
#endif
    :: d_step { at == LOAD -> load() }
    od
}

/* --- commit program ------------------------------------------------------------------------------ */

/* The record of the running system's trial: the present one, or a new one. */
inline begin_trial()
{
    if
    :: trial == running && phase != NO_RECORD && phase != COMMITTED ->
        own_starts = starts; own_restarts = restarts; own_reason = reason; own_boot = this_boot
    :: else
    fi;
    own_trial = running; at = COUNT
}

inline finish(new_trial, new_reason)
{
    own_trial = new_trial; own_reason = new_reason; at = (flag -> STORE_FINISH : RECORD_FINISH)
}

inline begin_check()
{
    at = (own_starts > START_LIMIT -> RECORD_ROLLBACK : CHECK)
}

inline note_commit()
{
    assert(proven[running]);
    settled_slot = running; is_armed = 0; is_tried = 0
}

#define is_program (at == OBSERVE || at == COUNT || at == CHECK || at == RECORD_COMMITTING || at == STORE_COMMIT || \
                    at == READ_COMMIT || at == RECORD_COMMIT || at == RECORD_ROLLBACK || at == STORE_ROLLBACK || \
                    at == READ_ROLLBACK || at == RESTART || at == STORE_FINISH || at == RECORD_FINISH)

active proctype commit_program()
{
end:
    do
    :: d_step { at == OBSERVE ->
        if
        :: is_rolling_back ->
            own_trial = trial; own_starts = starts; own_restarts = restarts; own_reason = reason; own_boot = this_boot;
            at = RECORD_ROLLBACK
        :: !is_selected && !is_rolling_back -> end_program()
#ifdef RETURN_CHECKED
        :: is_selected && phase == ROLLING_BACK && trial != running -> begin_trial()
#else
        :: is_selected && phase == ROLLING_BACK && trial != running -> finish(trial, reason)
#endif
#ifdef FLAG_UNCHECKED
        :: is_on_trial && phase != NO_RECORD -> begin_trial()
#else
        :: is_on_trial -> begin_trial()
#endif
        :: is_selected && !flag && phase == COMMITTING && is_own_record ->
            note_commit();
            finish(trial, reason)
        :: is_selected && !flag && phase != ROLLING_BACK && has_fallen_back && !(is_tried_phase && is_own_record) ->
            finish(other(running), 1)
        :: is_selected && !flag && !has_fallen_back && is_tried_phase && !is_own_record -> finish(other(running), 1)
#ifdef FLAG_UNCHECKED
        :: is_selected && !has_fallen_back && phase == NO_RECORD -> finish(NO_SLOT, 0)
#else
        :: is_selected && !flag && !has_fallen_back && phase == NO_RECORD -> finish(NO_SLOT, 0)
#endif
        :: is_selected && !flag && !has_fallen_back && phase == COMMITTED && is_own_record -> end_program()
        fi }

    /* The same start is counted once. */
    :: d_step { at == COUNT ->
        if
        :: !own_boot -> own_starts++; own_boot = 1
        :: else
        fi;
#ifndef COUNT_AFTER_CHECK
        record(TRYING, other(running));
#endif
        is_counted = 1; begin_check(); look() }
    :: d_step { at == CHECK && content[running] == HEALTHY -> proven[running] = 1;
#ifdef COMMITTING_UNRECORDED
        at = STORE_COMMIT }
#else
        at = RECORD_COMMITTING }
#endif
#ifndef DEADLINE_MISSING
    :: d_step { at == CHECK && content[running] == UNHEALTHY -> own_reason = 1; at = RECORD_ROLLBACK }
#else
    :: at == CHECK && content[running] == UNHEALTHY -> skip
#endif
    /* It restarts the camera. */
    :: d_step { at == CHECK && content[running] == CRASHING -> restart() }

    :: d_step { at == RECORD_COMMITTING -> record(COMMITTING, other(running)); at = STORE_COMMIT; look() }
    :: d_step { at == STORE_COMMIT -> flag = 0; count = 0; note_commit(); at = READ_COMMIT; look() }
    /* If it was not stored, the next round of checks decides. */
    :: d_step { at == READ_COMMIT ->
#ifdef COMMIT_NOT_READ_BACK
        at = RECORD_COMMIT }
#else
        if
        :: !flag && count == 0 -> note_commit(); at = RECORD_COMMIT
        :: else -> at = CHECK
        fi }
#endif
    :: d_step { at == RECORD_COMMIT ->
        assert(!flag && running == settled_slot);
        own_starts = 0; own_restarts = 0; own_reason = 0; own_boot = 0; record(COMMITTED, running); look();
        end_program() }

    /* No further restart is requested, but the next one, whoever requests it, leads back. */
    :: d_step { at == RECORD_ROLLBACK && own_restarts >= ROLLBACK_RESTARTS ->
#ifdef ROLLBACK_ABANDONED
        end_program() }
#else
        own_restarts++; at = (is_selected -> STORE_ROLLBACK : READ_ROLLBACK) }
#endif
    :: d_step { at == RECORD_ROLLBACK && own_restarts < ROLLBACK_RESTARTS ->
        own_restarts++; own_reason = 1;
        record(ROLLING_BACK, other(running));
        at = STORE_ROLLBACK; look() }
    :: d_step { at == STORE_ROLLBACK ->
#ifdef ROLLBACK_TOGGLES
        selected = other(selected);
#else
        selected = other(running);
#endif
        rolled_back = running; flag = 0; count = 0; is_armed = 0; at = READ_ROLLBACK; look() }
    :: d_step { at == READ_ROLLBACK ->
        if
        :: is_selected || own_restarts > ROLLBACK_RESTARTS -> end_program()
        :: else -> at = RESTART
        fi }
    :: d_step { at == RESTART -> restart() }

    :: d_step { at == STORE_FINISH -> selected = running; flag = 0; count = 0; at = RECORD_FINISH; look() }
    :: d_step { at == RECORD_FINISH ->
        own_starts = 0; own_restarts = 0; own_boot = 0; record(COMMITTED, running); look(); end_program() }

    /* The camera stops during the trial: this start is not a failure. */
    :: d_step { at == RECORD_STOP ->
        own_starts = (is_counted && own_starts > 0 -> own_starts - 1 : own_starts); own_boot = 0;
        record(TRYING, other(running)); at = STORE_STOP; look() }
    :: d_step { at == STORE_STOP -> count = (flag && count > 0 -> count - 1 : count); restart() }
    od
}

/* --- upgrade service and slot-switch script ------------------------------------------------------ */

#ifdef UPGRADE_IN_TRIAL
#define may_upgrade (at == IDLE || at == CHECK)
#else
#define may_upgrade (at == IDLE && view != TRIAL && view != ARMED)
#endif

inline write_slot(new_content)
{
    content[other(running)] = new_content; proven[other(running)] = 0; at = RECORD_ARMED
}

active proctype upgrade()
{
end:
    do
    :: d_step { may_upgrade && upgrades > 0 ->
        upgrades--; is_unrecorded = 0; content[other(running)] = INCOMPLETE; proven[other(running)] = 0; at = WRITING }
    :: d_step { at == WRITING -> write_slot(HEALTHY) }
    :: d_step { at == WRITING -> write_slot(UNHEALTHY) }
    :: d_step { at == WRITING -> write_slot(CRASHING) }
    :: d_step { at == WRITING && counting -> write_slot(PANICKING) }
    :: d_step { at == WRITING && counting -> write_slot(INCOMPLETE) }
    /* The script refuses while the other system is on trial or this one is. */
    :: d_step { at == RECORD_ARMED && (view == TRIAL || (flag && is_selected)) -> at = IDLE }
    :: d_step { at == RECORD_ARMED && !(view == TRIAL || (flag && is_selected)) ->
#ifndef ARM_UNRECORDED
        phase = RECORDED_ARMED; committed = running; trial = other(running); starts = 0; restarts = 0; reason = 0;
        this_boot = 1;
#endif
        at = STORE_ARMED; look() }
#ifdef ARM_IN_STEPS
    :: d_step { at == STORE_ARMED ->
        selected = other(running); is_armed = 1; is_tried = 1; at = STORE_ARMED_LATE; look() }
    :: d_step { at == STORE_ARMED_LATE -> flag = counting; count = 0; rolled_back = NO_SLOT; at = READ_ARMED; look() }
#else
    :: d_step { at == STORE_ARMED ->
        selected = other(running); flag = counting; count = 0; rolled_back = NO_SLOT;
        is_armed = 1; is_tried = 1; at = READ_ARMED; look() }
#endif
    /* The service requests the restart whether the slot is switched or not. */
    :: d_step { at == READ_ARMED -> at = SWITCHED }
    :: d_step { at == SWITCHED -> restart() }
    od
}

/* --- the world ----------------------------------------------------------------------------------- */

#define is_up (at != START && at != FALL_BACK && at != FALL_BACK_LATE && at != LOAD)
#define is_environment_store (at == STORE_COMMIT || at == STORE_ROLLBACK || at == STORE_ARMED || at == STORE_FINISH || \
                              at == STORE_STOP)

active proctype world()
{
    /* The former system may be unhealthy too. The slots are not alike: one is that of the default values. */
    if
    :: content[0] = UNHEALTHY
    :: skip
    fi;
    if
    :: counting = 1
    :: skip
    fi;
    do
    :: d_step { left > 0 -> left--; restart() }
    :: d_step { left > 0 && at == START && flag && counting -> left--; at = LOAD }
    /* A store without effect, which only reading shows. */
    :: d_step { left > 0 && is_environment_store -> left--;
        if
        :: at == STORE_COMMIT -> at = READ_COMMIT
        :: at == STORE_ROLLBACK -> at = READ_ROLLBACK
        :: at == STORE_ARMED -> at = READ_ARMED
        :: at == STORE_FINISH -> end_program()
        :: at == STORE_STOP -> restart()
        fi }
    /* The record cannot be stored. A start that nobody can count is the end of the trial. */
    :: d_step { left > 0 && at == COUNT -> left--;
        if
        :: !flag && !own_boot -> own_reason = 1; at = RECORD_ROLLBACK
        :: else
        fi }
    :: d_step { left > 0 && at == COUNT && flag -> left--; own_reason = 1; at = RECORD_ROLLBACK }
    :: d_step { left > 0 && at == RECORD_COMMITTING -> left--; at = CHECK }
    :: d_step { left > 0 && (at == RECORD_COMMIT || at == RECORD_FINISH) -> left--; end_program() }
    :: d_step { left > 0 && at == RECORD_ROLLBACK && own_restarts < ROLLBACK_RESTARTS ->
        left--; own_restarts++; own_reason = 1; at = STORE_ROLLBACK }
    :: d_step { left > 0 && at == RECORD_ARMED && !(view == TRIAL || (flag && is_selected)) ->
        left--; is_unrecorded = 1; at = STORE_ARMED }
    :: d_step { left > 0 && at == RECORD_STOP -> left--; at = STORE_STOP }
    :: d_step { left > 0 && flag && !is_up && phase != NO_RECORD ->
        left--; is_unrecorded = 1; phase = NO_RECORD; committed = NO_SLOT; trial = NO_SLOT;
        starts = 0; restarts = 0; reason = 0; this_boot = 0 }
    :: d_step { left > 0 && counting && is_armed && settled_slot == 0 && !is_up && !is_unrecorded ->
        left--; selected = 0; flag = 0; count = 0; rolled_back = NO_SLOT; is_armed = 0; at = START }
    :: d_step { left > 0 && at == CHECK && content[running] == HEALTHY -> left--; own_reason = 1; at = RECORD_ROLLBACK }
    :: d_step { left > 0 && at == CHECK -> left--; at = RECORD_STOP }
    :: d_step { left > 0 && is_program && at != OBSERVE -> left--; end_program(); at = OBSERVE }
    :: d_step { left > 0 && at == SWITCHED -> left--; at = IDLE }
    :: left = 0; break
    od;
end:
    do
    :: timeout ->
        if
        :: d_step { !is_settled(view) -> restart() }
        :: else -> break
        fi
    od;
    assert(content[running] == HEALTHY || (content[running] == UNHEALTHY && running == 0));
    assert(running == settled_slot && selected == running && !flag);
    assert(!is_tried || view == GIVEN_UP)
}
