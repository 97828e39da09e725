// The frame FIFO of component/frame_fifo.cpp, with the names used there: one producer, one
// consumer, no lock. The indexes and the state change as one word; the offset up to which the
// consumer has released the storage is a separate word.
//
// Checked in every order of the two threads' steps, for frames of every length, without end:
// - no frame overwrites one that the consumer may still read;
// - the count is the number of frames pushed and not popped, so that each is taken once, in order;
// - a FIFO that counts as full contains a frame, so that a pop ends this state.
//
// Known-bad variants, which must fail: STATE_APART changes the state without a check that the other
// side has not changed it, NO_GAP lets a frame fill the free room exactly.

#define CAPACITY 3
#define BYTES 5    // of the storage
#define LONGEST 2  // frame

#define EMPTY 1
#define FULL 2
#define NEITHER 3

#ifdef NO_GAP
#define HAS_ROOM(room, length) ((room) >= (length))
#else
#define HAS_ROOM(room, length) ((room) > (length))
#endif

#define NEXT(index) (((index) + 1) % CAPACITY)
#define CAN_GROW(position) (position.state == EMPTY || position.state == NEITHER)
#define COUNT(position)                                                                            \
    ((position.state == FULL || position.state == NEITHER)                                         \
         -> ((position.write > position.read)                                                      \
                 -> (position.write - position.read)                                               \
                 : (CAPACITY + position.write - position.read))                                    \
         : 0)

typedef position_t {
    byte read;
    byte write;
    byte state
}

typedef entry_t {
    byte offset;
    byte length
}

position_t position;
byte data_read;
byte data_write; // used by the producer only
entry_t entry[CAPACITY];

// Of the model alone:
byte frames;         // pushed and not popped
bool in_use[BYTES];  // by a frame, from its reservation until its room is released

inline load_position(copy)
{
    d_step {
        copy.read = position.read;
        copy.write = position.write;
        copy.state = position.state
    }
}

#ifdef STATE_APART
#define IS_UNCHANGED(from) true
#else
#define IS_UNCHANGED(from)                                                                         \
    (position.read == from.read && position.write == from.write && position.state == from.state)
#endif

// The compare and swap. The number of frames in the model changes in the same step.
inline change_position(from, to, added, is_changed)
{
    d_step {
        is_changed = IS_UNCHANGED(from);
        if
        :: is_changed ->
            position.read = to.read;
            position.write = to.write;
            position.state = to.state;
            from.read = 0;
            from.write = 0;
            from.state = 0;
            frames = frames + added;
            assert(COUNT(position) == frames);
            assert(position.state != FULL || frames > 0)
        :: else -> skip
        fi;
        to.read = 0;
        to.write = 0;
        to.state = 0
    }
}

proctype producer()
{
    position_t from;
    position_t to;
    byte length;
    byte offset;
    byte read;
    byte i;
    bool is_found;
    bool is_changed;

reserve:
    select(length : 1 .. LONGEST);
    load_position(from);
    do
    :: CAN_GROW(from) ->
        read = data_read;
        d_step {
            is_found = true;
            offset = data_write;
            if
            :: read > data_write -> is_found = HAS_ROOM(read - data_write, length)
            :: read <= data_write && !HAS_ROOM(BYTES - data_write, length) ->
                offset = 0;
                is_found = HAS_ROOM(read, length)
            :: else -> skip
            fi;
            read = 0
        }
        if
        :: is_found -> goto write
        :: !is_found && COUNT(from) == 0 -> goto reserve // refusing
        :: !is_found && COUNT(from) > 0 ->
            d_step {
                to.read = from.read;
                to.write = from.write;
                to.state = FULL
            }
            change_position(from, to, 0, is_changed);
            if
            :: is_changed -> goto reserve
            :: else -> load_position(from)
            fi
        fi
    :: !CAN_GROW(from) -> goto reserve
    od;

write:
    skip;
    d_step {
        assert(CAN_GROW(position));
        entry[from.write].offset = offset;
        entry[from.write].length = length;
        data_write = offset + length;
        assert(data_write <= BYTES);
        i = offset;
        do
        :: i < offset + length ->
            assert(!in_use[i]);
            in_use[i] = true;
            i++
        :: else -> break
        od;
        i = 0;
        offset = 0;
        is_found = false
    }
    load_position(from);
    do
    :: true ->
        assert(CAN_GROW(from));
        d_step {
            to.read = from.read;
            to.write = NEXT(from.write);
            to.state = (NEXT(from.write) == from.read -> FULL : NEITHER)
        }
        change_position(from, to, 1, is_changed);
        if
        :: is_changed -> goto reserve
        :: else -> load_position(from)
        fi
    od
}

proctype consumer()
{
    position_t from;
    position_t to;
    byte i;
    bool is_changed;

take:
    load_position(from);
    if
    :: COUNT(from) == 0 -> goto take
    :: else -> skip
    fi;
    d_step { // the frame has been read; until here no frame may overwrite it
        i = entry[from.read].offset;
        do
        :: i < entry[from.read].offset + entry[from.read].length ->
            in_use[i] = false;
            i++
        :: else -> break
        od;
        i = 0
    }
    load_position(from);
    do
    :: COUNT(from) > 0 ->
        data_read = entry[from.read].offset + entry[from.read].length;
        d_step {
            to.read = NEXT(from.read);
            to.write = from.write;
            to.state = (NEXT(from.read) == from.write -> EMPTY : NEITHER)
        }
        change_position(from, to, -1, is_changed);
        if
        :: is_changed -> goto take
        :: else -> load_position(from)
        fi
    :: else -> assert(false) // only the consumer takes frames out
    od
}

init
{
    atomic {
        position.state = EMPTY;
        run producer();
        run consumer()
    }
}
