/* The TLS layer of the SQL client module, left out.
 *
 * tessel-mysql.so is the MariaDB client from its static archive, linked with these entry
 * points in place of the archive's TLS layer, so that loading the client does not load and
 * relocate the TLS and crypto libraries. The client sets TLS up only when a connection asks
 * for it, and no connection string can, so tessel never reaches these calls. Should anything
 * reach them, they answer as a TLS layer without a library would: start-up and shut-down
 * succeed, setting up a connection yields no TLS object, and every other call fails. */

char tls_library_version[64] = "none";

int ma_tls_start(char* error, unsigned long error_size)
{
    (void)error;
    (void)error_size;
    return 0;
}

void ma_tls_end(void) {}

void* ma_tls_init(void* connection)
{
    (void)connection;
    return 0;
}

int ma_tls_connect(void* tls)
{
    (void)tls;
    return 1;
}

long ma_tls_read(void* tls, unsigned char* buffer, unsigned long size)
{
    (void)tls;
    (void)buffer;
    (void)size;
    return -1;
}

long ma_tls_write(void* tls, const unsigned char* buffer, unsigned long size)
{
    (void)tls;
    (void)buffer;
    (void)size;
    return -1;
}

long ma_tls_read_async(void* channel, unsigned char* buffer, unsigned long size)
{
    (void)channel;
    (void)buffer;
    (void)size;
    return -1;
}

long ma_tls_write_async(void* channel, const unsigned char* buffer, unsigned long size)
{
    (void)channel;
    (void)buffer;
    (void)size;
    return -1;
}

int ma_tls_close(void* tls)
{
    (void)tls;
    return 0;
}

int ma_tls_verify_server_cert(void* tls)
{
    (void)tls;
    return 1;
}

const char* ma_tls_get_cipher(void* tls)
{
    (void)tls;
    return 0;
}

unsigned int ma_tls_get_finger_print(void* tls, char* buffer, unsigned int size)
{
    (void)tls;
    (void)buffer;
    (void)size;
    return 0;
}

int ma_tls_get_protocol_version(void* tls)
{
    (void)tls;
    return -1;
}

int ma_tls_set_connection(void* connection)
{
    (void)connection;
    return 0;
}
