#pragma once

#include "tests/helpers/nfs/nfs_session.h"

struct fuse_operations;

// The calls of the file system that shows what lies on the server. Every call is made in the name of whoever
// asks, so that the server decides about rights. `session` outlives the file system.
const fuse_operations& NfsOperations(NfsSession& session);
