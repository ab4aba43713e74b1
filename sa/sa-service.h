// Start, stop and query of init services: the "+START_SERVICE", "+STOP_SERVICE" and "+QUERY_SERVICE"
// handlers of the command table.
#ifndef ZV_SA_SA_SERVICE_H
#define ZV_SA_SA_SERVICE_H

#include "sa-handle.h"

// "+START_SERVICE=\"NAME\"": starts NAME and answers OK once a process of that name runs (up to 8 s).
long handle_sa_start_service_set(int fd, sa_msg_st *req, sa_msg_st *rsp, const char *param);
// "+STOP_SERVICE=\"NAME\"": stops NAME and answers OK once no process of that name runs (up to 10 s).
long handle_sa_stop_service_set(int fd, sa_msg_st *req, sa_msg_st *rsp, const char *param);
// "+QUERY_SERVICE=\"NAME\"": answers whether a process of that name runs.
long handle_sa_query_service_set(int fd, sa_msg_st *req, sa_msg_st *rsp, const char *param);

#endif  // ZV_SA_SA_SERVICE_H
