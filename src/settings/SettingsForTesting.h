#pragma once
// Hooks for the library's own tests and internals, kept out of the public API.

namespace quarvel {

// Forgets the shared settings instance and empties defaultsDic, so that the
// next class call runs the start-up sequence again. Like a reset, it stops
// and joins the start-up job first.
void discardSharedSettingsForTesting();

// Stops and joins the start-up identity jobs still running; a job holds the
// network sources it was handed, so a test stops them before changing those.
void stopNetworkIdentityJobs();

}  // namespace quarvel
