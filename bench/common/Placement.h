// Where threads run.
#pragma once

namespace Bench {

/// Limits the calling thread, and threads it starts from now on, to one processor. Nothing happens when
/// there is no such processor.
void pin_to(unsigned processor);

/// Lifts the limit again: processors 0 and 1.
void unpin();

}  // namespace Bench
