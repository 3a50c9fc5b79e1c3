// Start-up of the request record from the CGI environment.
#ifndef TESSEL_CGI_REQUEST_H
#define TESSEL_CGI_REQUEST_H

#include "interp/request.h"

// Fills the record from the environment (the 22 CGI variables and CONTENT_LENGTH) and
// selects the code pages.
void request_init();

#endif
