// What a broken pipe does to the run. While the daemon is spoken to and a printed reply is written, it is a failed call
// with a status like any other; a streamed answer ends the run the way it ends every filter.
#ifndef PLAX_LINK_BROKEN_PIPE_H
#define PLAX_LINK_BROKEN_PIPE_H

// Makes writes to a broken pipe or socket fail with EPIPE instead of raising SIGPIPE. Called once in a run.
void IgnoreBrokenPipe();

// Puts back the disposition of SIGPIPE that the run inherited.
void RestoreBrokenPipe();

#endif
