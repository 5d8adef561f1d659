// The run wrapper: the engine behind "/run.ebd" that lets a page open a
// local file, folder or program and then sends the browser on to a page.
#ifndef LUMETTA_RUNWRAPPER_H
#define LUMETTA_RUNWRAPPER_H

// Engine callback: the first argument is unused, client is the
// HTTPS_CLIENT. True when the file was handed to the desktop; false after
// the 403 reply (no file, or nothing could open it).
bool RunWrapper(void* unused, void* client);

#endif
