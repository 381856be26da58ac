/*
 * What other programs of the camera observe of a trial (corvo_commit status): the interface of the models
 * trial.pml, which checks that it makes no other step than these, and src/agent/action/protocol.pml, which
 * makes each of these steps.
 *
 *   SETTLED    the running system is committed, and the record contains no reason of a failed trial
 *   GIVEN_UP   the running system is committed, and the record contains why the other one was given up
 *   ARMED      the other system is selected for the next start
 *   TRIAL      the running system is on trial, or its commit or rollback is not complete
 *   UNSETTLED  the former system runs, but the end of the trial, or the switch to it, is not complete
 */
mtype:view = { SETTLED, GIVEN_UP, ARMED, TRIAL, UNSETTLED };

#define is_settled(v) (v == SETTLED || v == GIVEN_UP)

/* From ARMED or TRIAL the camera is settled in the former system if no trace of the trial could be stored. A
   reason that is recorded then belongs to an earlier trial. */
#define may_follow(v, next) (v == next || \
    (is_settled(v) && (next == UNSETTLED || next == ARMED)) || \
    (v == UNSETTLED && (next == ARMED || next == GIVEN_UP)) || \
    (v == ARMED && next != ARMED) || \
    (v == TRIAL && next != ARMED))
