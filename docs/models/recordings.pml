// The life of recordings in one process, as in component/recording_begin.cpp, recording_end.cpp,
// end_reports.cpp, buffer_callback.cpp and storage_sync.cpp. It has two components, their clients,
// the buffer thread and a writer thread of the first, the thread that waits for the storage (SYNC),
// a stop thread for every end, starts and a destruction from the client's event handler, and the
// destructors.
//
// Checked in every order of the steps:
// - each recording is reported once, with the reason of the thread that ended it, or 0 when no file
//   was opened;
// - the reports are sent one at a time, in the order in which the recordings ended (a component
//   that is being destroyed keeps only the order of its own);
// - one thread at a time uses the session and the storage handle;
// - the files are synced only while they are open, and closed after the last sync of the thread;
// - nothing of a component is used after its destructor has returned;
// - no thread waits for ever.
//
// Left out: equal ends in a row, which share an entry of the queue, and the limit of its entries.
//
// Known-bad variants, which must fail: IDLE_LATE clears bCallbackIdle after the gate, CLEAR_APART
// tests and clears bRecording in two steps, OUT_OF_TURN sends a report before its turn,
// CLAIM_EARLY releases the claim before the end is queued, NO_EXEMPTION lets a component that is
// being destroyed wait for the reports of others, NO_JOIN closes the files without waiting for the
// thread that syncs them, DUE_KEPT lets that thread clear a request after it has served it.

#define COMPONENTS 2
#define NOBODY 255
#ifndef STARTS
#define STARTS 3 // granted starts, from any thread; 4 at most
#endif
#ifndef EVENT_CALLS
#define EVENT_CALLS 2 // starts and stops within one event
#endif

#define STORAGE 0 // stop reasons
#define CLIENT 1
#define FULL 2
#define WRITE 5
#define DESTROYED 7

#define OWED 1 // states of an end
#define HANDED 2

bool bRecording[COMPONENTS];
bool bCallbackIdle[COMPONENTS] = true;
bool bMuxOpen[COMPONENTS];
bool bIsLeaving[COMPONENTS];
byte global_recording_owner = NOBODY;
byte global_uc_stop_type;
bool has_writer; // hVideoWriterThread of component 0
bool has_sync;   // the thread of storage_sync.cpp, of the recording under way
bool bDue;       // of storage_sync.cpp
bool bEnding;
byte owed[COMPONENTS]; // entries of astEnd in use

// The queue of ends; the first is at index 0.
byte queued;
byte end_component[4];
byte end_number[4];
byte end_reason[4];
byte end_state[4];

// Of the model alone:
byte starts;               // recordings begun, which is the number of the next one
byte number[COMPONENTS];   // of the recording under way
byte expected[STARTS];     // the reason of each recording
byte next_report;          // the lowest number that may be reported next in its turn
byte last_report[COMPONENTS] = NOBODY;
bool is_in_event[COMPONENTS];
bool is_in_turn[COMPONENTS]; // in its turn, not because the component is leaving
bool is_any_in_turn;
bool is_inside;            // the buffer thread uses the session or the storage handle
bool is_gone[COMPONENTS];
bool quits[COMPONENTS];    // the buffer thread must end
bool is_joinable[COMPONENTS];
byte clients[COMPONENTS] = 1;
bool is_other_destroyed;
bool is_writer_started;
bool is_syncing;
bool is_written; // by the buffer thread, after the begin of the last sync

inline take_recording(c, reason, is_taken)
{
#ifdef CLEAR_APART
    is_taken = bRecording[c];
#endif
    d_step {
        assert(!is_gone[c]);
#ifndef CLEAR_APART
        is_taken = bRecording[c];
#endif
        if
        :: is_taken ->
            bRecording[c] = false;
            expected[number[c]] = reason
        :: else -> skip
        fi
    }
}

// The stop procedure runs on a new thread, or without one on this thread, which then waits for it.
inline begin_stop(c, reason, is_writer)
{
    is_taken = false;
    if
    :: atomic { global_uc_stop_type = reason; run stop_procedure(c, true, is_writer, done) }
#ifdef NO_THREADS
    :: atomic { global_uc_stop_type = reason; run stop_procedure(c, false, is_writer, done) }
        done?_
#endif
    fi
}

inline stop_recording(c)
{
    take_recording(c, CLIENT, is_taken);
    if
    :: is_taken ->
        bCallbackIdle[c];
        begin_stop(c, CLIENT, false)
    :: else -> skip
    fi
}

// Index of the first end of a component in the queue.
#define FIRST_OF(c)                                                                                \
    ((queued > 0 && end_component[0] == c)                                                         \
         -> 0                                                                                      \
         : ((queued > 1 && end_component[1] == c)                                                  \
                -> 1                                                                               \
                : ((queued > 2 && end_component[2] == c)                                           \
                       -> 2                                                                        \
                       : ((queued > 3 && end_component[3] == c) -> 3 : NOBODY))))
#define HAS_HANDED(c) (FIRST_OF(c) != NOBODY && end_state[FIRST_OF(c)] == HANDED)

#ifdef OUT_OF_TURN
#define IS_TURN(c, n) true
#elif defined(NO_EXEMPTION)
#define IS_TURN(c, n) (end_number[0] == n)
#else
#define IS_TURN(c, n) (end_number[0] == n || (bIsLeaving[c] && end_number[FIRST_OF(c)] == n))
#endif

// Appends the end of recording n of component c.
inline append(c, n, reason)
{
    assert(queued < 4);
    end_component[queued] = c;
    end_number[queued] = n;
    end_reason[queued] = reason;
    end_state[queued] = OWED;
    queued++
}

inline take_out(n)
{
    index = 0;
    do
    :: end_number[index] != n -> index++
    :: else -> break
    od;
    queued--;
    do
    :: index < queued ->
        end_component[index] = end_component[index + 1];
        end_number[index] = end_number[index + 1];
        end_reason[index] = end_reason[index + 1];
        end_state[index] = end_state[index + 1];
        index++
    :: else -> break
    od;
    end_component[queued] = 0;
    end_number[queued] = 0;
    end_reason[queued] = 0;
    end_state[queued] = 0;
    index = 0
}

inline set_state(n, state)
{
    index = 0;
    do
    :: end_number[index] != n -> index++
    :: else -> break
    od;
    end_state[index] = state;
    index = 0
}

// The event handler is called. Asserts what is true of every report.
inline enter_event(c, n)
{
    set_state(n, OWED);
    assert(!is_gone[c] && !is_in_event[c]);
    assert(last_report[c] == NOBODY || last_report[c] < n);
    last_report[c] = n;
    is_in_event[c] = true;
    if
    :: bIsLeaving[c] -> skip
    :: else ->
        assert(!is_any_in_turn && next_report <= n);
        next_report = n + 1;
        is_any_in_turn = true;
        is_in_turn[c] = true
    fi
}

inline leave_event(c)
{
    take_out(last_report[c]);
    is_any_in_turn = is_any_in_turn && !is_in_turn[c];
    is_in_turn[c] = false;
    is_in_event[c] = false;
    owed[c]--
}

// SetParameter of a start, until the recording is active, refused or ended at once; in the last
// case n is its number.
inline start_recording(c)
{
    do
    :: d_step { global_recording_owner == NOBODY && starts < STARTS ->
            assert(!is_gone[c] && !is_inside);
            global_recording_owner = c
        }
        if
        :: d_step { bIsLeaving[c] -> global_recording_owner = NOBODY }
        :: d_step { !bIsLeaving[c] -> // owe_report
                owed[c]++;
                number[c] = starts;
                starts++;
                assert(!is_inside)
            }
            if
            :: d_step { true -> // there is storage
                    assert(!is_gone[c]);
                    bRecording[c] = true
                }
            :: d_step { true -> // there is none
                    assert(!is_gone[c]);
                    n = number[c];
                    append(c, n, STORAGE);
                    global_recording_owner = NOBODY
                }
            fi
        fi;
        break
    :: global_recording_owner != NOBODY && global_recording_owner != c -> break
    :: global_recording_owner == c && bRecording[c] -> break
    :: starts == STARTS -> break
    od
}

// The calls of a client in the event of component c.
inline handle_event(c)
{
    calls = 0;
    do
    :: calls < EVENT_CALLS && starts < STARTS ->
        calls++;
        start_recording(c);
        if
        :: atomic { n != NOBODY -> set_state(n, HANDED); n = NOBODY } // its turn cannot have come
        :: else -> skip
        fi
    :: calls < EVENT_CALLS && bRecording[c] -> calls++; stop_recording(c)
    :: d_step { c == 0 && clients[1] == 0 && !is_other_destroyed -> is_other_destroyed = true }
        run destructor(1, done);
        done?_
    :: break
    od;
    calls = 0
}

// send_report and send_handed_reports: the event of component c, which has been entered, then the
// reports that were handed over after it.
inline send_reports(c)
{
    do
    :: handle_event(c);
        atomic {
            leave_event(c);
            if
            :: queued > 0 && end_state[0] == HANDED ->
                c = end_component[0];
                n = end_number[0];
                enter_event(c, n);
                n = NOBODY
            :: else -> break
            fi
        }
    od
}

proctype stop_procedure(byte c; bool may_wait; bool is_writer; chan starter)
{
    chan done = [0] of { bool };
    byte n = NOBODY;
    byte reason;
    byte index;
    byte calls;
    bool is_taken;

    bCallbackIdle[c];
    c != 0 || is_writer || !has_writer; // joined
    bEnding = true;                     // stop_storage_sync
#ifndef NO_JOIN
    !has_sync;
#endif
    d_step { // the session is closed
        assert(!is_gone[c] && !is_inside && global_recording_owner == c && !is_syncing);
        bEnding = false;
        reason = (bMuxOpen[c] -> global_uc_stop_type : STORAGE);
        bMuxOpen[c] = false;
        n = number[c];
        assert(reason == STORAGE || reason == expected[n])
    }
#ifdef CLAIM_EARLY
    global_recording_owner = NOBODY;
#endif
    d_step { // report_end
        append(c, n, reason);
#ifndef CLAIM_EARLY
        global_recording_owner = NOBODY;
#endif
        reason = 0
    }
    if
    :: atomic { IS_TURN(c, n) -> enter_event(c, n); n = NOBODY }
        send_reports(c)
    :: atomic { !may_wait && !IS_TURN(c, n) -> set_state(n, HANDED); n = NOBODY }
    fi;
    if
    :: may_wait -> skip
    :: else -> starter!true
    fi
}

proctype destructor(byte c; chan starter)
{
    chan done = [0] of { bool };
    byte own = c;
    byte n = NOBODY;
    byte index;
    byte calls;
    bool is_taken;

    bIsLeaving[own] = true; // refuse_recordings
    do
    :: bRecording[own] ->
        take_recording(own, DESTROYED, is_taken);
        if
        :: is_taken -> begin_stop(own, DESTROYED, false)
        :: else -> skip
        fi
    :: atomic { HAS_HANDED(own) ->
            c = own;
            n = end_number[FIRST_OF(own)];
            enter_event(c, n);
            n = NOBODY
        }
        send_reports(c)
    :: owed[own] == 0 -> break
    od;
    bCallbackIdle[own];
    quits[own] = true;
    !is_joinable[own];
    d_step {
        is_gone[own] = true;
        assert(global_recording_owner != own)
    }
    starter!true
}

proctype buffer_thread(byte c)
{
    chan done = [0] of { bool };
    bool is_recording;
    bool is_taken;

    do
    :: quits[c] -> break
    :: starts < STARTS || bRecording[c] ->
#ifdef IDLE_LATE
        is_recording = bRecording[c];
        bCallbackIdle[c] = false;
#else
        bCallbackIdle[c] = false;
        is_recording = bRecording[c];
#endif
        if
        :: is_recording ->
            d_step {
                assert(!is_gone[c] && global_recording_owner == c);
                is_recording = false;
                is_inside = true;
                bMuxOpen[c] = true
            }
#ifdef SYNC
            atomic { // open_session_locked, make_checkpoint
                is_written = true;
                bDue = true;
                if
                :: !has_sync -> has_sync = true; run sync_thread(c)
                :: else -> skip
                fi
            }
#endif
            is_inside = false;
            if
            :: take_recording(c, FULL, is_taken)
            :: skip
            fi
        :: else -> skip
        fi;
        d_step {
            assert(!is_gone[c]);
            bCallbackIdle[c] = true
        }
        if
        :: is_taken -> begin_stop(c, FULL, false)
        :: else -> skip
        fi
    od;
    is_joinable[c] = false
}

// What was written before a request is synced by it, unless the recording ends first: the stop then
// syncs the files.
proctype sync_thread(byte c)
{
    do
    :: atomic { bEnding -> break }
    :: atomic { bDue && !bEnding ->
            assert(!is_gone[c] && bMuxOpen[c]);
#ifndef DUE_KEPT
            bDue = false;
#endif
            is_written = false;
            is_syncing = true
        }
        d_step {
            assert(!is_gone[c] && bMuxOpen[c]);
#ifdef DUE_KEPT
            bDue = false;
#endif
            is_syncing = false
        }
        assert(!is_written || bDue || bEnding)
    od;
    atomic {
        bDue = false;
        is_written = false;
        has_sync = false
    }
}

// Its handle is in the component's record.
proctype writer_thread(byte c)
{
    chan done = [0] of { bool };
    bool is_taken;

    if
    :: bRecording[c] ->
        take_recording(c, WRITE, is_taken);
        if
        :: is_taken -> begin_stop(c, WRITE, true)
        :: else -> skip
        fi
    :: !bRecording[c] -> skip
    fi;
    has_writer = false
}

proctype client(byte c)
{
    chan done = [0] of { bool };
    byte own = c;
    byte n = NOBODY;
    byte index;
    byte calls;
    bool is_taken;

    do
    :: starts < STARTS ->
        start_recording(own);
        if
        :: n != NOBODY ->
            if
            :: atomic { IS_TURN(own, n) -> c = own; enter_event(c, n); n = NOBODY }
                send_reports(c)
            :: atomic { !IS_TURN(own, n) -> set_state(n, HANDED); n = NOBODY }
            fi
        :: else -> skip
        fi
#ifdef WRITER
    :: own == 0 && !is_writer_started ->
        atomic {
            is_writer_started = true;
            has_writer = true;
            run writer_thread(0)
        }
#endif
    :: bRecording[own] -> stop_recording(own)
    :: break
    od;
    own != 0 || !has_writer;
    clients[own]--
}

init
{
    chan done = [0] of { bool };
    atomic {
#ifdef BUFFERS
        is_joinable[0] = true;
        run buffer_thread(0);
#endif
        run client(0);
#ifdef OTHER
        run client(1)
#else
        clients[1] = 0
#endif
    }
    clients[0] == 0 && clients[1] == 0;
    if
    :: d_step { !is_other_destroyed -> is_other_destroyed = true }
        run destructor(1, done);
        done?_
    :: is_other_destroyed -> skip
    fi;
    run destructor(0, done);
    done?_;
    is_gone[1];
    assert(queued == 0 && owed[0] + owed[1] == 0 && global_recording_owner == NOBODY)
}
