// A connection that drops: SIGHUP.
#pragma once

namespace qm5 {

/// From here on, a hang-up ends the command as SIGTERM does, with its outcome. A process that was
/// started to ignore hang-ups goes on ignoring them. Call it once, before the others.
void followHangUps();

/// An update has begun: no hang-up ends it. Any thread, as for the next one.
void holdHangUps();

/// The update has ended, and something else goes on: a hang-up that came meanwhile takes effect
/// now. Where nothing goes on, it would only compete with the outcome.
void releaseHangUps();

}  // namespace qm5
