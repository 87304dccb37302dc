#include "alloc_fault.hpp"
#include "service_client.hpp"
#include "zncContainerLib.hpp"

#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using service_client::ClientQueues;
using service_client::kReplyName;
using service_client::kSuccess;
using service_client::request_of;
using service_client::Service;

// ---------------------------------------------------------------- what is believed of a message

TEST(ClientQueueName, OnlyTheFormThatClientsMakeIsOne)
{
    for (const char* name : {"/znc-u-1-0", "/znc-u-1234-18446744073709551615", "/znc-u-0-0"})
        EXPECT_TRUE(znc::is_client_queue_name(name)) << name;
    for (const char* name : {"",
                             "/",
                             "/znc",
                             "/znc-u-",
                             "/znc-u-1",
                             "/znc-u-1-",
                             "/znc-u--1",
                             "/znc-u-1-2_info",
                             "/znc-u-1-2-3",
                             "/znc-u-a-1",
                             "/znc-u-1-x",
                             "/znc-u-+1-1",
                             "/znc-u-1 -1",
                             "znc-u-1-1",
                             "/ZNC-u-1-1",
                             "/other-u-1-1",
                             "/znc2-u-1-1",
                             "//znc-u-1-1",
                             "/znc-u-1-1/",
                             "/a/b",
                             "/znc-u-1-1\n"})
        EXPECT_FALSE(znc::is_client_queue_name(name)) << name;
}

TEST(DecodeRequest, ValidRequestIsAcceptedAndTerminatedInPlace)
{
    zncMessage message = request_of(ZNC_ALIVE, "{}");
    std::memset(message.data + 2, 'x', 10);
    EXPECT_TRUE(znc::decode_request(&message, sizeof message));
    EXPECT_STREQ(message.data, "{}");
    EXPECT_EQ(message.data[3], 'x');
}

TEST(DecodeRequest, LengthOf1843IsTheLongest)
{
    zncMessage message = request_of(ZNC_ALIVE, std::string(1843, 'j'));
    EXPECT_TRUE(znc::decode_request(&message, sizeof message));
    EXPECT_EQ(message.data[1843], '\0');
    for (const std::uint32_t len : {1844U, 1845U, 0x7fffffffU, 0x80000000U, 0xffffffffU}) {
        message.dataLen = len;
        EXPECT_FALSE(znc::decode_request(&message, sizeof message)) << len;
    }
}

TEST(DecodeRequest, WhatWasNotReceivedDoesNotCount)
{
    zncMessage message = request_of(ZNC_ALIVE, "{}");
    EXPECT_TRUE(znc::decode_request(&message, ZNC_MSG_HEADER_LEN + 2));
    EXPECT_FALSE(znc::decode_request(&message, ZNC_MSG_HEADER_LEN + 1));
    EXPECT_FALSE(znc::decode_request(&message, ZNC_MSG_HEADER_LEN));
    EXPECT_FALSE(znc::decode_request(&message, ZNC_MSG_HEADER_LEN - 1));
    EXPECT_FALSE(znc::decode_request(&message, 0));
}

TEST(DecodeRequest, ForeignAndUnterminatedNamesAreRefused)
{
    for (const std::string& name : {std::string("/znc"), std::string("/foreign"), std::string(),
                                    "/znc-u-1-" + std::string(300, '1'), std::string(192, '/')}) {
        zncMessage message = request_of(ZNC_ALIVE, "{}", name);
        EXPECT_FALSE(znc::decode_request(&message, sizeof message)) << name;
    }
}

// ---------------------------------------------------------------- processing

TEST_F(Service, AliveIsAnsweredWithErrno0AndAnEmptyBody)
{
    EXPECT_EQ(answer(ZNC_ALIVE, "{}"), R"({"errno":0,"body":[]})");
    EXPECT_TRUE(fake_registry::calls().empty());
}

TEST_F(Service, UnpackAndUnknownCommandsAreAnsweredWithSuccess)
{
    for (const int cmdId : {int{ZNC_UNPACK}, 10, 1000, -1, INT32_MIN})
        EXPECT_EQ(answer(cmdId, R"({"containerId":"web"})"), kSuccess) << cmdId;
    EXPECT_TRUE(fake_registry::calls().empty());
}

TEST_F(Service, RequestThatIsNotJsonIsAnsweredWithSuccessAndRunsNothing)
{
    for (const char* json : {"", "{", "nonsense", "{\"containerId\":"})
        EXPECT_EQ(answer(ZNC_DELETE, json), kSuccess) << json;
    EXPECT_TRUE(fake_registry::calls().empty());
}

TEST_F(Service, JsonThatIsNoObjectReachesTheRegistryWithoutAnId)
{
    for (const char* json : {"[]", "7", "null", R"("web")", R"(["containerId","web"])"}) {
        EXPECT_EQ(answer(ZNC_DELETE, json), R"({"errno":22,"body":[]})") << json;
        EXPECT_FALSE(last_call().id.has_value()) << json;
    }
}

TEST_F(Service, ReplyRepeatsCommandAndNameInItsHeader)
{
    ClientQueues client;
    zncMessage message = request_of(ZNC_LIST, "{}");
    ASSERT_TRUE(znc::decode_request(&message, sizeof message));
    ASSERT_EQ(zncMessageProcess(&message), OK);
    const auto pieces = client.pieces();
    ASSERT_EQ(pieces.size(), 1U);
    zncMessage reply = {};
    ASSERT_EQ(pieces[0].size(), ZNC_MSG_HEADER_LEN + kSuccess.size());
    std::memcpy(&reply, pieces[0].data(), pieces[0].size());
    EXPECT_EQ(std::string(reply.name), kReplyName);
    EXPECT_EQ(reply.cmdId, ZNC_LIST);
    EXPECT_EQ(reply.dataLen, kSuccess.size());
}

TEST_F(Service, NoMemoryForTheBodyMeansNoReply)
{
    ClientQueues client;
    zncMessage message = request_of(ZNC_ALIVE, "{}");
    ASSERT_TRUE(znc::decode_request(&message, sizeof message));
    alloc_fault::arm(1);
    const STATUS status = zncMessageProcess(&message);
    alloc_fault::disarm();
    EXPECT_EQ(status, ERROR);
    EXPECT_EQ(client.reply_text(), "(none)");
}

TEST_F(Service, ReplyThatCannotBeDeliveredIsIgnored)
{
    zncMessage message = request_of(ZNC_ALIVE, "{}");
    ASSERT_TRUE(znc::decode_request(&message, sizeof message));
    EXPECT_EQ(zncMessageProcess(&message), OK);
}

TEST_F(Service, ProgressGoesToTheClientBeingServedAtItsLevel)
{
    fake_registry::on_call([](const fake_registry::Call&) {
        char format[] = "step %d";
        zncSendMsg(1, format, 7);
    });
    const auto progress_at = [](std::uint8_t level) {
        ClientQueues client;
        zncMessage message = request_of(ZNC_DELETE, R"({"containerId":"web"})");
        message.msgLvl = level;
        EXPECT_TRUE(znc::decode_request(&message, sizeof message));
        EXPECT_EQ(zncMessageProcess(&message), OK);
        return client.progress();
    };
    const std::vector<std::string> text = {std::string("step 7\0", 7)};
    EXPECT_EQ(progress_at(1), text);
    EXPECT_EQ(progress_at(0), std::vector<std::string>());
    EXPECT_EQ(progress_at(2), text);
}

TEST_F(Service, LevelAbove2KeepsThePreviousVerbosity)
{
    const auto verbosity_after = [](std::uint8_t level) {
        zncMessage message = request_of(ZNC_ALIVE, "{}");
        message.msgLvl = level;
        EXPECT_TRUE(znc::decode_request(&message, sizeof message));
        EXPECT_EQ(zncMessageProcess(&message), OK);
        return zncMsgVerbosity;
    };
    EXPECT_EQ(verbosity_after(0), 0U);
    EXPECT_EQ(verbosity_after(3), 0U);
    EXPECT_EQ(verbosity_after(1), 1U);
    EXPECT_EQ(verbosity_after(255), 1U);
    EXPECT_EQ(verbosity_after(2), 2U);
}

// ---------------------------------------------------------------- handlers

TEST_F(Service, CreatePassesItsParametersAndNoAttributes)
{
    EXPECT_EQ(answer(ZNC_CREATE, R"({"containerId":"web","bundle":"/b","option":5})"), kSuccess);
    const auto call = last_call();
    EXPECT_EQ(call.function, "zncContainerCreate");
    EXPECT_EQ(call.id, "web");
    EXPECT_EQ(call.bundle, "/b");
    EXPECT_EQ(call.option, 5U);
    EXPECT_EQ(call.number, 0) << "attributes";
}

TEST_F(Service, CreateWithoutParametersReachesTheRegistryWithNulls)
{
    EXPECT_EQ(answer(ZNC_CREATE, "{}"), R"({"errno":22,"body":[]})");
    EXPECT_FALSE(last_call().id.has_value());
    EXPECT_FALSE(last_call().bundle.has_value());
    EXPECT_EQ(last_call().option, 0U);
}

TEST_F(Service, ParameterOfTheWrongTypeCountsAsMissing)
{
    EXPECT_EQ(answer(ZNC_CREATE, R"({"containerId":["web"],"bundle":"/b","option":5})"),
              R"({"errno":22,"body":[]})");
    EXPECT_FALSE(last_call().id.has_value());
}

TEST_F(Service, RegistryFailureIsTheReplysErrno)
{
    fake_registry::fail("zncContainerCreate", S_zncLib_BUNDLE_IN_USE);
    EXPECT_EQ(answer(ZNC_CREATE, R"({"containerId":"web","bundle":"/b"})"),
              R"({"errno":14614552,"body":[]})");
}

TEST_F(Service, KillWithoutSignoSends15)
{
    fake_registry::add("web", STATE_RUNNING);
    EXPECT_EQ(answer(ZNC_KILL, R"({"containerId":"web"})"), kSuccess);
    EXPECT_EQ(last_call().function, "zncContainerKill");
    EXPECT_EQ(last_call().id, "web");
    EXPECT_EQ(last_call().number, 15);
    EXPECT_EQ(last_call().option, 0U);
}

TEST_F(Service, KillPassesSignalAndOption)
{
    fake_registry::add("web", STATE_RUNNING);
    EXPECT_EQ(answer(ZNC_KILL, R"({"containerId":"web","signo":9,"option":2})"), kSuccess);
    EXPECT_EQ(last_call().number, 9);
    EXPECT_EQ(last_call().option, 2U);
    EXPECT_EQ(answer(ZNC_KILL, R"({"containerId":"none"})"), R"({"errno":19,"body":[]})");
}

TEST_F(Service, DeletePassesItsOption)
{
    fake_registry::add("web", STATE_STOPPED);
    EXPECT_EQ(answer(ZNC_DELETE, R"({"containerId":"web","option":2})"), kSuccess);
    EXPECT_EQ(last_call().function, "zncContainerDelete");
    EXPECT_EQ(last_call().option, 2U);
    EXPECT_EQ(answer(ZNC_DELETE, R"({"containerId":"web"})"), R"({"errno":19,"body":[]})");
    EXPECT_EQ(last_call().option, 0U);
}

TEST_F(Service, StoreStatePassesTheHandle)
{
    fake_registry::add("web", STATE_RUNNING);
    EXPECT_EQ(answer(ZNC_STORE_STATE, R"({"containerId":"web","handle":4321})"), kSuccess);
    EXPECT_EQ(last_call().function, "zncContainerStorePidHandle");
    EXPECT_EQ(last_call().number, 4321);
    EXPECT_EQ(answer(ZNC_STORE_STATE, R"({"containerId":"web"})"), kSuccess);
    EXPECT_EQ(last_call().number, 0);
}

TEST_F(Service, StateIsOneObject)
{
    fake_registry::add("web", STATE_STOPPED, "/bundles/web");
    EXPECT_EQ(
        answer(ZNC_STATE, R"({"containerId":"web"})"),
        R"({"errno":0,"body":[{"ociVersion":"1.0.2","id":"web","status":3,"bundle":"/bundles/web"}]})");
}

TEST_F(Service, StateOfAnUnknownContainerIsErrno19AndAnEmptyBody)
{
    EXPECT_EQ(answer(ZNC_STATE, R"({"containerId":"none"})"), R"({"errno":19,"body":[]})");
}

TEST_F(Service, ListWithoutContainersIsErrno0AndAnEmptyBody)
{
    EXPECT_EQ(answer(ZNC_LIST, "{}"), kSuccess);
}

TEST_F(Service, ListHoldsEveryStateInTheRegistrysOrder)
{
    fake_registry::add("b", STATE_RUNNING, "/2");
    fake_registry::add("a", STATE_CREATED, "/1");
    EXPECT_EQ(answer(ZNC_LIST, "{}"),
              R"({"errno":0,"body":[{"ociVersion":"1.0.2","id":"a","status":1,"bundle":"/1"},)"
              R"({"ociVersion":"1.0.2","id":"b","status":2,"bundle":"/2"}]})");
}

TEST_F(Service, ListStopsAtAFailingStateAndKeepsWhatItHas)
{
    fake_registry::add("a", STATE_CREATED, "/1");
    fake_registry::add("b", STATE_CREATED, "/2");
    fake_registry::add("c", STATE_CREATED, "/3");
    fake_registry::fail("zncContainerStateGet", ENODEV, 2);
    EXPECT_EQ(answer(ZNC_LIST, "{}"),
              R"({"errno":19,"body":[{"ociVersion":"1.0.2","id":"a","status":1,"bundle":"/1"}]})");
}

TEST_F(Service, ListWithoutMemoryForTheIdIsErrno12)
{
    fake_registry::add("a", STATE_CREATED);
    const znc::CJsonPtr array(cJSON_CreateArray());
    alloc_fault::arm(1);
    const int result = zncQueryContainerList(array.get());
    alloc_fault::disarm();
    EXPECT_EQ(result, 12);
    EXPECT_EQ(cJSON_GetArraySize(array.get()), 0);
}

TEST_F(Service, LongestIdIsListed)
{
    fake_registry::add(std::string(254, 'i'), STATE_CREATED, "/b");
    EXPECT_NE(answer(ZNC_LIST, "{}").find(std::string(254, 'i')), std::string::npos);
}

TEST_F(Service, StateObjectHasItsKeysInOrder)
{
    CONTAINER_STATE state = {};
    std::strcpy(state.ver, "1.1.0");
    std::strcpy(state.containerId, "web");
    std::strcpy(state.bundlePath, "/b");
    state.status = STATE_UNKNOWN;
    const znc::CJsonPtr object(zncMsgBodyInitByState(&state));
    const znc::CJsonText text(cJSON_PrintUnformatted(object.get()));
    EXPECT_STREQ(text.get(), R"({"ociVersion":"1.1.0","id":"web","status":4,"bundle":"/b"})");
}

class ServiceStart : public Service {
  protected:
    void SetUp() override
    {
        Service::SetUp();
        parm_.appPath = "/b/rootfs/bin/app";
        parm_.option = 1;
        parm_.priority = 100;
        parm_.stackSize = 8192;
        parm_.taskOption = 2;
        parm_.nsId = 77;
        parm_.cwd = "/";
        parm_.posixFlags = 384;
        parm_.arg = arg_;
        parm_.argNum = 2;
        parm_.env = env_;
        parm_.envNum = 1;
    }
    std::string start()
    {
        fake_registry::set_start_parm(parm_);
        fake_registry::add("web", STATE_CREATED);
        return answer(ZNC_START, R"({"containerId":"web","option":4})");
    }

    char word_[2][8] = {"app", "-v"};
    char variable_[8] = "A=1";
    char* arg_[3] = {word_[0], word_[1], nullptr};
    char* env_[2] = {variable_, nullptr};
    CONTAINER_START_PARM parm_ = {};
};

TEST_F(ServiceStart, ReplyIsOneStartParameterObject)
{
    EXPECT_EQ(start(), R"({"errno":0,"body":[{"appPath":"/b/rootfs/bin/app","arg":["app","-v"],)"
                       R"("env":["A=1"],"option":1,"priority":100,"stackSize":8192,"taskOption":2,)"
                       R"("nsId":77,"cwd":"/","posixFlags":384}]})");
}

TEST_F(ServiceStart, EmptyVectorsAndMissingTextAreLeftOut)
{
    parm_ = {};
    parm_.posixFlags = -1;
    EXPECT_EQ(start(), R"({"errno":0,"body":[{"option":0,"priority":0,"stackSize":0,)"
                       R"("taskOption":0,"nsId":0,"posixFlags":-1}]})");
}

TEST_F(ServiceStart, ObjectThatCannotBeMadeIsLeftOut)
{
    arg_[0] = nullptr;
    EXPECT_EQ(start(), kSuccess);
}

TEST_F(ServiceStart, ContainerThatIsNotCreatedIsErrno16AndAnEmptyBody)
{
    EXPECT_NE(start(), kSuccess);
    EXPECT_EQ(answer(ZNC_START, R"({"containerId":"web"})"), R"({"errno":16,"body":[]})");
    EXPECT_EQ(answer(ZNC_START, R"({"containerId":"none"})"), R"({"errno":19,"body":[]})");
    EXPECT_EQ(answer(ZNC_START, "{}"), R"({"errno":22,"body":[]})");
}

} // namespace
