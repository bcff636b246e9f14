#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "wire/Commands.h"
#include "wire/JsonText.h"
#include "wire/QuillmarkError.h"
#include "wire/Rpc.h"

namespace quillmark {
namespace {

RpcFault faultOf(std::string_view line) {
  const auto decoded = decodeCall(line);
  const auto* refusal = std::get_if<RpcRefusal>(&decoded);
  EXPECT_TRUE(refusal) << line;
  return refusal ? refusal->fault : RpcFault{};
}

TEST(Rpc, carriesEveryArgumentOfACallThere) {
  const DeleteSnapshot call{.name = "a \"quoted\" ü\n", .volumeUUID = "u", .force = true};
  const std::string line = encodeRequest(7, DeleteSnapshot::traits.selector, argumentValues(call));
  EXPECT_EQ(line.find('\n'), std::string::npos);
  const auto decoded = decodeCall(line);
  const auto& got = std::get<RpcCall>(decoded);
  EXPECT_EQ(got.id, "7");
  EXPECT_EQ(got.command->selector, DeleteSnapshot::traits.selector);
  const auto same = commandFrom<DeleteSnapshot>(got.arguments);
  EXPECT_EQ(same.name, call.name);
  EXPECT_EQ(same.volumeUUID, call.volumeUUID);
  EXPECT_TRUE(same.force);
}

TEST(Rpc, tellsEachKindOfMalformedCallByItsCode) {
  const auto call = [](const char* method, const char* params) {
    return std::string(R"({"jsonrpc":"2.0","id":1,"method":")") + method + R"(","params":)" + params + "}";
  };
  const char* create = "createSnapshotOnVolume:label:reply:";
  for (const char* line : {"", "{", "nonsense", "{\"a\":1}trailing", "\xFF\xFE", "[1,2", "{\"id\":1e999}"}) {
    EXPECT_EQ(faultOf(line), RpcFault::parseError) << line;
  }
  for (const char* line : {"[]", "1", "\"x\"", "{}", R"({"jsonrpc":"1.0","id":1,"method":"x"})",
                           R"({"jsonrpc":"2.0","id":{}})", R"({"jsonrpc":"2.0","id":1,"method":5})"}) {
    EXPECT_EQ(faultOf(line), RpcFault::invalidRequest) << line;
  }
  EXPECT_EQ(faultOf(call("noSuchCommand:reply:", "[]")), RpcFault::methodNotFound);
  for (const char* params :
       {"[]", "[\"u\"]", "[\"u\",\"l\",\"x\"]", "[1,\"l\"]", "[\"u\",null]", "{\"volumeUUID\":\"u\"}"}) {
    EXPECT_EQ(faultOf(call(create, params)), RpcFault::invalidParams) << params;
  }
}

TEST(Rpc, doesNotKnowWhatTheConnectionsProtocolLeavesOut) {
  for (const CommandSpec& command : commandTable()) {
    const bool isExported = command.protocols == CommandProtocols::helperAndFinder;
    const std::string line =
        R"({"jsonrpc":"2.0","id":1,"method":")" + std::string(command.selector) + R"(","params":[[],[],[],[],[],[]]})";
    const auto decoded = decodeCall(line, ConnectionProtocol::finder);
    EXPECT_EQ(std::get<RpcRefusal>(decoded).fault, isExported ? RpcFault::invalidParams : RpcFault::methodNotFound)
        << command.selector;
    EXPECT_EQ(faultOf(line), RpcFault::invalidParams) << command.selector;
  }
}

TEST(Rpc, leavesAMalformedNotificationUnanswered) {
  const auto decoded = decodeCall(R"({"jsonrpc":"2.0","method":"nothing"})");
  EXPECT_FALSE(std::get<RpcRefusal>(decoded).answered);
  const auto withId = decodeCall(R"({"jsonrpc":"2.0","id":null,"method":"nothing"})");
  EXPECT_TRUE(std::get<RpcRefusal>(withId).answered);
}

TEST(Rpc, carriesAnErrorWithAllItSaysBack) {
  const auto underlying = std::make_shared<const Error>("disk", 28, "No space left");
  const Error error = QuillmarkError::operationCompleted("done, but", underlying);
  const RpcIncoming incoming = decodeIncoming(encodeReply("3", {jsonString("name"), error}));
  EXPECT_EQ(incoming.kind, RpcIncoming::Kind::reply);
  EXPECT_EQ(incoming.id, 3U);
  EXPECT_EQ(stringValue(incoming.reply), "name");
  ASSERT_TRUE(incoming.reply.error);
  EXPECT_TRUE(QuillmarkError::isOperationCompleted(*incoming.reply.error));
  EXPECT_EQ(incoming.reply.error->recoverySuggestion(), error.recoverySuggestion());
  ASSERT_TRUE(incoming.reply.error->underlying());
  EXPECT_EQ(incoming.reply.error->underlying()->description(), "No space left");
  EXPECT_EQ(incoming.reply.error->underlying()->code(), 28);
}

TEST(Rpc, answersASuccessWithoutAResultAsNull) {
  EXPECT_EQ(encodeReply("\"x\"", {}), R"({"jsonrpc":"2.0","id":"x","result":{"value":null}})");
}

TEST(Rpc, tellsPushesAndRefusalsFromReplies) {
  const RpcIncoming push = decodeIncoming(encodePush("snapshotsChangedWithVolumeUUID:", {std::string("u")}));
  EXPECT_EQ(push.kind, RpcIncoming::Kind::push);
  EXPECT_EQ(push.selector, "snapshotsChangedWithVolumeUUID:");
  EXPECT_EQ(push.params, R"(["u"])");
  const RpcIncoming refusal = decodeIncoming(encodeRefusal({"9", RpcFault::methodNotFound, "what?"}));
  EXPECT_EQ(refusal.kind, RpcIncoming::Kind::refusal);
  EXPECT_EQ(refusal.refusalCode, -32601);
  EXPECT_EQ(refusal.refusalMessage, "what?");
}

TEST(Rpc, findsTheTextOfEachArgumentInTheRequestLine) {
  using Texts = std::vector<std::string_view>;
  struct Case {
    const char* object;
    Texts texts;
  };
  for (const auto& [object, texts] : std::initializer_list<Case>{
           {R"({"params":["u", {"a": [1, "]"]} , -1.5e3,null]})", {"\"u\"", R"({"a": [1, "]"]})", "-1.5e3", "null"}},
           {R"({"id":"params","x":{"params":[9]},"params":[]})", {}},
           {R"({"params":[1],"p\u0061rams":[2]})", {"2"}},
           {R"( { "params" : [ "a\"]" , [[]] ] } )", {R"("a\"]")", "[[]]"}},
           {R"({"params":7})", {}},
       }) {
    EXPECT_EQ(elementTexts(object, "params"), texts) << object;
  }
}

}  // namespace
}  // namespace quillmark
