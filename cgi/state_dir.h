// The site's state folder: where the program keeps what outlives a request for one site.
#ifndef TESSEL_CGI_STATE_DIR_H
#define TESSEL_CGI_STATE_DIR_H

// Makes the folder named by TESSEL_STATE_DIR the working folder, so that .profile, error_log,
// access_log, cache/ and chat/ are that site's own when one program serves several virtual
// hosts. The server sets it per site; it is read before anything else, .profile included, so
// only the server can choose it. Unset or empty: the working folder stays as the server left
// it. A folder that cannot be entered (missing, not a folder, not searchable) ends the run
// with the fatal error page (status 500), whose log line names the folder and the reason; a
// safe error page shows neither.
void state_dir_enter();

#endif
