// The dlopen loader of the MySQL client library, against the installed libmariadb.so.3.
#include <gtest/gtest.h>

#include "core/mysql_client.h"

TEST(MysqlClient, LoadsOnceWithEveryCall)
{
    const char* error = nullptr;
    const mysql_client* client = mysql_client_load(&error);
    ASSERT_NE(client, nullptr) << error;
    EXPECT_EQ(mysql_client_load(nullptr), client); // looked up once, the same table after
    EXPECT_NE(client->fetch_field, nullptr);
    EXPECT_NE(client->free_result, nullptr);
}

TEST(MysqlClient, RefusedConnectionLeavesClientMessage)
{
    const mysql_client* client = mysql_client_load(nullptr);
    ASSERT_NE(client, nullptr);
    mysql_conn* conn = client->init(nullptr);
    ASSERT_NE(conn, nullptr);
    // Port 1 on the loopback has no server: the connect fails and the handle keeps why.
    EXPECT_EQ(client->real_connect(conn, "127.0.0.1", "u", "p", "db", 1, nullptr, 0), nullptr);
    EXPECT_NE(std::string(client->error(conn)), "");
    EXPECT_NE(client->query(conn, "select 1"), 0);
    client->close(conn);
}
