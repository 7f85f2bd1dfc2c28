// Temporary files that writers of the records left behind when they were killed.
#ifndef CLI_LEFTOVERS_H_
#define CLI_LEFTOVERS_H_

namespace ZorvSnapUsage {

// Removes the temporary files beside the map, the reminder, the statuses and the results whose
// writers are gone; one that a writer may still need stays, and so does everything in doubt. Asks
// each lock once and waits for none. What cannot be removed stays in silence: it costs a little
// space, and the next run tries again.
void RemoveLeftovers();

}  // namespace ZorvSnapUsage

#endif  // CLI_LEFTOVERS_H_
