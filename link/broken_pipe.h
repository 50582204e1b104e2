// The disposition of SIGPIPE. While the tool sends a request or writes a printed reply, a broken pipe is a failed call
// with a status like any other. During a streamed answer, SIGPIPE ends the run as it ends every filter.
#ifndef PLAX_LINK_BROKEN_PIPE_H
#define PLAX_LINK_BROKEN_PIPE_H

// Ignores SIGPIPE, so that writes to a broken pipe or socket fail with EPIPE. Called once in a run.
void IgnoreBrokenPipe();

// Restores the disposition that the run inherited.
void RestoreBrokenPipe();

#endif
