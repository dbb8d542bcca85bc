// Who may hold a thread, when several workers share few processors. A worker that holds one must not wait for
// a processor while the others wait for stops: with all four at it on two processors a thread was held two to
// five times as long. So at most half of the processors have a holder: twice as many made a dump 8 % faster
// and its holds twice as long.
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
