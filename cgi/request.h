// Start-up of the request record from the CGI environment.
#ifndef TESSEL_CGI_REQUEST_H
#define TESSEL_CGI_REQUEST_H

#include "interp/request.h"

// Fills the record from the environment (the 22 CGI variables and CONTENT_LENGTH) and
// selects the code pages.
void request_init();

// The name the server authenticated: REMOTE_USER, or, when that is empty on a page the server
// dispatched to the program by an internal redirect (REDIRECT_STATUS "200", as an Action
// handler does), REDIRECT_REMOTE_USER. An error document (any other status) gets no name: a
// 401 page sees the name typed with a wrong password. Never null.
// Ownership: view (of the environment).
const char* request_remote_user();

#endif
