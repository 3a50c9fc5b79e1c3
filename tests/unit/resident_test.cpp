// A resident worker's requests, in-process: each sees its own environment and nothing of the
// one before, and what ends a CGI process ends only the request.
#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "core/environment.h"
#include "program/resident.h"
#include "test_support.h"

namespace {

struct served {
    resident_answer answer;
    std::string response;
};

// A worker on a site folder of its own, with page files written by the test.
class Resident : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        register_all_operators();
        resident_start();
    }

    void SetUp() override
    {
        site_ = temp_path("resident_site");
        mkdir(site_.c_str(), 0700);
    }

    void write(const std::string& name, const std::string& text)
    {
        FILE* file = fopen((site_ + "/" + name).c_str(), "w");
        fputs(text.c_str(), file);
        fclose(file);
    }

    // Serves the page with the given query string and extra "NAME=value" params.
    served serve(const std::string& page, const std::string& query = "",
                 std::vector<std::string> extra = {})
    {
        std::vector<std::string> params = {
            "REQUEST_METHOD=GET",     "GATEWAY_INTERFACE=CGI/1.1",
            "REQUEST_URI=/" + page,   "PATH_TRANSLATED=" + site_ + "/" + page,
            "DOCUMENT_ROOT=" + site_, "SCRIPT_NAME=/cgi-bin/tessel",
            "QUERY_STRING=" + query,  "TESSEL_STATE_DIR=" + site_};
        params.insert(params.end(), extra.begin(), extra.end());
        std::vector<char*> pointers;
        for (std::string& param : params)
            pointers.push_back(param.data());
        pointers.push_back(nullptr);
        FILE* in = fopen("/dev/null", "r");
        char* data = nullptr;
        size_t size = 0;
        FILE* out = open_memstream(&data, &size);
        served result{resident_serve(pointers.data(), in, out), ""};
        fclose(in);
        fclose(out);
        result.response.assign(data, size);
        free(data);
        return result;
    }

    std::string site_;
};

std::string body(const served& s)
{
    size_t blank = s.response.find("\n\n");
    return blank == std::string::npos ? "" : s.response.substr(blank + 2);
}

TEST_F(Resident, RequestsSeeTheirOwnParamsAndNothingOfTheLast)
{
    write("a.html", "^var[seen]|^env[TESSEL_T]|^env[QUERY_STRING]|^var[seen;set]");
    write(".profile", "TESSEL_T=from profile\n");
    EXPECT_EQ(body(serve("a.html", "q=1")), "|from profile|q=1|");
    unlink((site_ + "/.profile").c_str());
    EXPECT_EQ(body(serve("a.html", "q=2")), "||q=2|");
    EXPECT_EQ(body(serve("a.html", "", {"TESSEL_T=param"})), "|param||");
    EXPECT_EQ(getenv("TESSEL_T"), nullptr);
    EXPECT_EQ(getenv("QUERY_STRING"), nullptr);
}

TEST_F(Resident, WhatEndsAProcessEndsOnlyTheRequest)
{
    write("ok.html", "fine");
    write("zero.html", "^var[x;1]^var[x;/;0]never");
    served zero = serve("zero.html");
    EXPECT_EQ(zero.answer.signal, SIGFPE);
    EXPECT_TRUE(zero.answer.spoiled);
    EXPECT_FALSE(resident_response_complete(zero.response.data(), zero.response.size()));

    served missing = serve("missing.html");
    EXPECT_EQ(missing.answer.status, 253);
    EXPECT_FALSE(missing.answer.spoiled);
    EXPECT_NE(missing.response.find("unable to print"), std::string::npos);

    served ok = serve("ok.html");
    EXPECT_EQ(ok.answer.status, 0);
    EXPECT_EQ(body(ok), "fine");
}

TEST(ResidentResponse, CompleteOnlyWithTheEmptyLineThatEndsTheHeader)
{
    for (const char* complete : {"\n", "\r\nbody", "A: b\n\nbody", "A: b\r\n\r\n", "A: b\n\n"})
        EXPECT_TRUE(resident_response_complete(complete, strlen(complete))) << complete;
    for (const char* partial : {"", "body", "A: b\n", "A: b\nC: d", "A: b\n \n"})
        EXPECT_FALSE(resident_response_complete(partial, strlen(partial))) << partial;
}

TEST(Environment, ARequestsStringsOutliveTheirReplacementUntilItEnds)
{
    setenv("TESSEL_ENV_BASE", "base", 1);
    env_keep_base();
    char param[] = "TESSEL_ENV_BASE=param";
    char* params[] = {param, nullptr};
    env_begin_request(params);
    const char* held = getenv("TESSEL_ENV_BASE");
    env_set("TESSEL_ENV_BASE", "set");
    env_unset("TESSEL_ENV_BASE");
    EXPECT_STREQ(held, "param"); // still readable: the sanitizer build sees a use after free
    EXPECT_EQ(getenv("TESSEL_ENV_BASE"), nullptr);
    env_end_request();
    EXPECT_STREQ(getenv("TESSEL_ENV_BASE"), "base");
}

} // namespace
