// The client library's side of descriptors, for the files of the descriptor calls: node
// records, service links, descriptions and the process's descriptor table.
#pragma once

#include "description.h"
#include "fd_session.h"
#include "internal.h"
#include "node_record.h"
#include "pipe_mapping.h"
#include "service_link.h"
