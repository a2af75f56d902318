// Asks the desktop to show the mounted disk in its sidebar, once, on a detached thread of its own.
#pragma once

// Starts the registration of the disk called `diskName` (a char*, alive as long as the process) and returns
// at once with the result of detaching the thread.
int informFinder(void* diskName);

// The function of the registration's thread; always returns null.
void* thread_main(void* diskName);

// Registers the disk; a name without a server part in parentheses registers nothing.
void inform(char* diskName);

// The directory that a disk called "DISK (SERVER)" is mounted at by convention, below the home directory: a
// heap string that the caller frees, or null when the name is not of that form. A part of more than 64 bytes,
// and a name that begins with its only "(", end the process.
char* pathFromDiskName(char* diskName);
