// Start-up of the request record from the CGI environment.
#ifndef TESSEL_CGI_REQUEST_H
#define TESSEL_CGI_REQUEST_H

#include "interp/request.h"

// Fills the record from the environment (the 22 CGI variables and CONTENT_LENGTH) and
// selects the code pages. path_translated is the page's file (dispatch_page_file in
// cgi/dispatch.h): when the server named it SCRIPT_FILENAME instead, as a server that runs the
// program as the page file's handler does, it is also set as PATH_TRANSLATED, and the program
// moves from the page's folder, where such a server starts it, to its own (unless
// TESSEL_STATE_DIR names the folder to work in).
void request_init();

// The name the server authenticated: REMOTE_USER, or, when that is empty on a page the server
// dispatched to the program by an internal redirect (REDIRECT_STATUS "200", as an Action
// handler does), REDIRECT_REMOTE_USER. An error document (any other status) gets no name: a
// 401 page sees the name typed with a wrong password. Never null.
// Ownership: view (of the environment).
const char* request_remote_user();

#endif
