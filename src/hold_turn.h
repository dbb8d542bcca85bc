// Who may hold a thread, when several workers share few processors: at most as many as there are processors.
// With all four at it on two processors a dump took as long, but the holds were half as long again, since a
// holder then waits for a processor. Half as many holders made the dump a sixth slower, and the holds a third
// shorter.
#pragma once

// A turn to hold threads, given back at the end of its scope. It is advice: nobody waits for one longer than
// some milliseconds, since a thread that never stops keeps its holder for seconds.
class hold_turn
{
public:
    hold_turn();
    ~hold_turn();
    hold_turn(const hold_turn&) = delete;
    hold_turn& operator=(const hold_turn&) = delete;

private:
    bool mine = false;
};
