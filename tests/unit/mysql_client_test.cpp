// The dlopen loader of the MySQL client library: it finds a client and looks its calls up once.
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
