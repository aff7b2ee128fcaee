#pragma once

#include "veltancmat/platform/Export.h"

#include <functional>

namespace NCMultiThreading {

// Runs task(index, alone) for every index in [0, count).
//
// Independent pieces of work that are each too short to share well (the
// rounds of a cross-validation on a matrix that fits in the caches) go
// faster one per thread than one after another with every pass split over
// the team: the team's forks, joins and serial stretches between passes
// cost more than the passes themselves. So, where the OpenMP settings allow
// more than one thread, there are at least as many tasks as threads and the
// caller is not inside a team already, the tasks run side by side, handed
// out in index order, each on one thread, with `alone` false: whatever a
// task runs stays on its thread, so it computes the same bits as with
// threading off. Otherwise every task runs in order on the calling thread
// with `alone` true, and the regions inside it use the whole team (with
// fewer tasks than threads, side by side would leave threads idle through a
// whole task).
//
// A progress object belongs to the thread that drives it; tasks side by
// side may only poll it for a break. For them, announce(index) runs on the
// calling thread, once for every index and in index order, as the calling
// thread finds each task handed out, so that a caller can report them.
//
// An exception from a task or an announcement ends the run: no further task
// starts, the running ones finish, and the exception of the lowest index
// that threw is rethrown, which is the one running the tasks in order would
// have met first.
VELTANCMAT_API void RunSideBySide(int count, const std::function<void(int index, bool alone)>& task,
                                  const std::function<void(int index)>& announce);

} // namespace NCMultiThreading
