/// The process from its first line to its exit code.
#pragma once

/// Runs the application until SIGINT or SIGTERM. Returns 0, or 104 after an exception that nothing
/// else has handled; it is logged. With an argument it starts nothing: it answers --help and
/// --version and returns 0, and refuses any other argument with 2. The process must not yet have
/// another thread. SIGINT, SIGTERM, SIGUSR1 and SIGUSR2 stay blocked afterwards.
int pos_main(int argc, char** argv);
