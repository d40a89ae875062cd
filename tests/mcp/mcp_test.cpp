// The MCP front door without a client: line framing, the dispatcher's answers to good
// and bad messages, the tool list against the catalogue, and tools/call turned into
// command lines. A recording runner stands in for the stores; the SDK test compares
// real answers with the command line's.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <stdexcept>

#include "cli/TeskAPI.h"
#include "cli/TeskCLI.h"
#include "cli/TeskOptions.h"
#include "mcp/TeskMCPFraming.h"
#include "mcp/TeskMCPServer.h"
#include "mcp/TeskMCPTools.h"
#include "report/TeskJSONValue.h"

namespace {

using Node = TeskJSONValue::Value;
using TeskMCPFraming::Line;
using TeskMCPFraming::LineReader;
using Strings = std::vector<std::string>;

// What a reader hands out for the given reads, the end included; a dropped line is "!".
Strings linesOf(const Strings& reads, size_t cap) {
  LineReader reader(cap);
  Strings out;
  auto take = [&](const Line& l) { out.push_back(l.tooLong ? "!" : l.text); };
  for (const std::string& r : reads) {
    reader.feed(r);
    while (auto l = reader.next()) take(*l);
  }
  while (auto l = reader.finish()) take(*l);
  return out;
}

TEST(TeskMCPFraming, CutsLinesWhereverTheReadsEnd) {
  struct Case {
    const char* name;
    Strings reads;
    Strings lines;
  };
  const std::string big(20, 'x');
  const Case cases[] = {
      {"one line in pieces", {"{\"a\"", ":1", "}\n"}, {"{\"a\":1}"}},
      {"several in one read", {"a\nb\nc\n"}, {"a", "b", "c"}},
      {"a read ending mid-line", {"a\nb", "c\nd\n"}, {"a", "bc", "d"}},
      {"CRLF line ends", {"a\r\nb\r\n"}, {"a", "b"}},
      {"blank lines kept for the caller", {"\n\n"}, {"", ""}},
      {"unterminated tail at the end", {"a\nlast"}, {"a", "last"}},
      {"a line of exactly the cap", {"0123456789\n"}, {"0123456789"}},
      {"a line past the cap, then a good one", {big + "\nok\n"}, {"!", "ok"}},
      {"past the cap across reads", {"01234", "56789", "ab", "cd\nok\n"}, {"!", "ok"}},
      {"the cap passed by the tail at the end", {"ok\n", big}, {"ok", "!"}},
      {"nothing", {}, {}},
  };
  for (const Case& c : cases) EXPECT_EQ(linesOf(c.reads, 10), c.lines) << c.name;
}

// A runner that records the command line and prints what the test asks for.
struct Recorder {
  Strings args;
  std::string printed =
      "#tesk {\"v\":1,\"q\":\"x\",\"rows_total\":0,\"ms\":3}\nrow\n"
      "#tesk {\"v\":1,\"q\":\"x\",\"rows_total\":0,\"ms\":3}";
  int32_t exit = 0;
  bool fail = false;

  TeskMCPServer server() {
    return TeskMCPServer("/bin/tesk-mcp", [this](const Strings& a, TeskOut& out) {
      if (fail) throw std::runtime_error("boom");
      args = a;
      size_t start = 0;
      while (start <= printed.size()) {
        size_t end = printed.find('\n', start);
        if (end == std::string::npos) end = printed.size();
        out.line(printed.substr(start, end - start));
        start = end + 1;
      }
      return exit;
    });
  }
};

std::optional<std::string> send(TeskMCPServer& server, const std::string& text) {
  return server.handle(Line{text, false});
}

Node answer(TeskMCPServer& server, const std::string& text) {
  auto response = send(server, text);
  if (!response) return Node{};
  auto parsed = TeskJSONValue::parse(*response);
  EXPECT_TRUE(parsed) << *response;
  return parsed.value_or(Node{});
}

std::string call(const std::string& tool, const std::string& arguments, int id = 7) {
  return "{\"jsonrpc\":\"2.0\",\"id\":" + std::to_string(id) +
         ",\"method\":\"tools/call\",\"params\":{\"name\":\"" + tool +
         "\",\"arguments\":" + arguments + "}}";
}

double errorCode(const Node& response) {
  const Node* e = response.member("error");
  return e && e->member("code") ? *e->member("code")->number() : 0;
}

TEST(TeskMCPServer, NegotiatesTheProtocolVersion) {
  Recorder rec;
  TeskMCPServer server = rec.server();
  const std::pair<const char*, const char*> cases[] = {
      {"\"2025-06-18\"", "2025-06-18"}, {"\"2025-03-26\"", "2025-03-26"},
      {"\"2024-11-05\"", "2024-11-05"}, {"\"2025-11-25\"", "2025-06-18"},
      {"\"1999-01-01\"", "2025-06-18"}, {"7", "2025-06-18"},
  };
  for (auto [asked, chosen] : cases) {
    Node r = answer(server, std::string("{\"jsonrpc\":\"2.0\",\"id\":\"i\",\"method\":"
                                        "\"initialize\",\"params\":{\"protocolVersion\":") +
                                asked + ",\"capabilities\":{}}}");
    ASSERT_TRUE(r.member("result")) << asked;
    const Node& result = *r.member("result");
    EXPECT_EQ(*result.member("protocolVersion")->string(), chosen) << asked;
    EXPECT_EQ(*r.member("id")->string(), "i");
    EXPECT_EQ(*result.member("serverInfo")->member("name")->string(), "tesk");
    EXPECT_FALSE(result.member("serverInfo")->member("version")->string()->empty());
    EXPECT_TRUE(result.member("capabilities")->member("tools"));
  }
}

TEST(TeskMCPServer, AnswersBadMessagesAndGoesOn) {
  Recorder rec;
  TeskMCPServer server = rec.server();
  struct Case {
    const char* line;
    double code;
  };
  const Case cases[] = {
      {"not json", -32700},
      {"{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"tools/list\"", -32700},
      {"\"ping\"", -32600},
      {"[]", -32600},
      {"{\"id\":1,\"method\":\"ping\"}", -32600},
      {"{\"jsonrpc\":\"1.0\",\"id\":1,\"method\":\"ping\"}", -32600},
      {"{\"jsonrpc\":\"2.0\",\"id\":{},\"method\":\"ping\"}", -32600},
      {"{\"jsonrpc\":\"2.0\",\"id\":1}", -32600},
      {"{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":3}", -32600},
      {"{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"resources/list\"}", -32601},
      {"{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"tools/call\",\"params\":[1]}", -32602},
      {"{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"tools/call\",\"params\":{}}", -32602},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(errorCode(answer(server, c.line)), c.code) << c.line;
    Node pong = answer(server, "{\"jsonrpc\":\"2.0\",\"id\":2,\"method\":\"ping\"}");
    EXPECT_TRUE(pong.member("result") && pong.member("result")->object()) << c.line;
  }
  Node huge = TeskJSONValue::parse(*server.handle(Line{"", true})).value();
  EXPECT_EQ(errorCode(huge), -32600);
  EXPECT_TRUE(huge.member("id")->isNull());
}

// A client matches answers to requests by id: a number comes back exactly as sent,
// even one a double cannot hold.
TEST(TeskMCPServer, EchoesTheIdAsSent) {
  Recorder rec;
  TeskMCPServer server = rec.server();
  for (const std::string id : {"9007199254740993", "-12", "1.50", "2E3", "\"x\""}) {
    auto out = send(server, "{\"jsonrpc\":\"2.0\",\"id\":" + id + ",\"method\":\"ping\"}");
    ASSERT_TRUE(out) << id;
    EXPECT_EQ(out->rfind("{\"id\":" + id + ",", 0), 0u) << *out;
  }
}

TEST(TeskMCPServer, StaysSilentForNotificationsResponsesAndBlankLines) {
  Recorder rec;
  TeskMCPServer server = rec.server();
  for (const char* line : {"{\"jsonrpc\":\"2.0\",\"method\":\"notifications/initialized\"}",
                           "{\"jsonrpc\":\"2.0\",\"method\":\"tools/call\",\"params\":{}}",
                           "{\"jsonrpc\":\"2.0\",\"id\":5,\"result\":{}}", "", "  \t"}) {
    EXPECT_FALSE(send(server, line)) << line;
  }
  EXPECT_TRUE(rec.args.empty());  // a notification runs nothing
}

TEST(TeskMCPServer, AnswersABatchInOneArray) {
  Recorder rec;
  TeskMCPServer server = rec.server();
  Node r = answer(server,
                  "[{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"ping\"},"
                  "{\"jsonrpc\":\"2.0\",\"method\":\"notifications/initialized\"},"
                  "{\"jsonrpc\":\"2.0\",\"id\":2,\"method\":\"nope\"}]");
  ASSERT_TRUE(r.array());
  ASSERT_EQ(r.array()->size(), 2u);
  EXPECT_EQ(*r.array()->at(0).member("id")->number(), 1);
  EXPECT_EQ(errorCode(r.array()->at(1)), -32601);
  EXPECT_FALSE(send(server, "[{\"jsonrpc\":\"2.0\",\"method\":\"notifications/initialized\"}]"));
}

// The SDK test holds the names in order, descriptions, annotations, each selector's type and
// enum, the text property and the required lists; this holds what it does not look at.
TEST(TeskMCPTools, OneToolPerVerbWithTheCatalogueSelectors) {
  Recorder rec;
  TeskMCPServer server = rec.server();
  Node r = answer(server, "{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"tools/list\"}");
  const Node& tools = *r.member("result")->member("tools");
  ASSERT_EQ(tools.array()->size(), TeskAPI::verbs().size());
  for (size_t i = 0; i < tools.array()->size(); ++i) {
    const Node& tool = tools.array()->at(i);
    const TeskAPI::Verb& verb = TeskAPI::verbs()[i];
    const Node& schema = *tool.member("inputSchema");
    EXPECT_FALSE(*schema.member("additionalProperties")->boolean());
    // Every row verb takes every selector and its text; report verbs take nothing.
    size_t expected = 0;
    for (auto v : TeskAPI::selectableVerbs())
      if (v == verb.name) expected = TeskAPI::selectors().size() + (verb.text.empty() ? 0 : 1);
    EXPECT_EQ(schema.member("properties")->keys().size(), expected) << verb.name;
  }
  auto tool = [&](const std::string& name) {
    for (const Node& t : *tools.array())
      if (*t.member("name")->string() == name) return t;
    return Node{};
  };
  auto property = [&](const std::string& name, const std::string& key) {
    return *tool(name).member("inputSchema")->member("properties")->member(key);
  };
  EXPECT_FALSE(tool("span").member("inputSchema")->member("required"));
  EXPECT_FALSE(property("span", "src").member("enum"));  // a comma list is no single value
  EXPECT_FALSE(property("span", "who").member("enum"));
}

// The catalogue's shapes agree with the parser: a toggle stands alone, every other
// selector wants a value.
TEST(TeskMCPTools, CatalogueShapesMatchTheParser) {
  for (const TeskAPI::Selector& s : TeskAPI::selectors()) {
    const std::string flag(s.flag);
    if (s.shape == TeskAPI::Shape::toggle) {
      EXPECT_NO_THROW(TeskCLI::Options::parse({flag}, "span", 1.8e9)) << flag;
    } else {
      try {
        TeskCLI::Options::parse({flag}, "span", 1.8e9);
        ADD_FAILURE() << flag << " took no value";
      } catch (const TeskCLI::OptionError& e) {
        EXPECT_EQ(e.message(), flag + " needs a value");
      }
    }
    if (s.shape == TeskAPI::Shape::integer) {
      EXPECT_THROW(TeskCLI::Options::parse({flag, "x"}, "span", 1.8e9), TeskCLI::OptionError);
    }
  }
}

TEST(TeskMCPTools, ArgumentsBecomeTheCommandLineInCatalogueOrder) {
  struct Case {
    const char* tool;
    const char* arguments;
    Strings args;  // after program and verb
  };
  const Case cases[] = {
      {"span", "{}", {}},
      {"span", "null", {}},
      {"search",
       "{\"text\":\"dinner at 8\",\"limit\":3,\"src\":\"im,mail\"}",
       {"--src", "im,mail", "--limit", "3", "dinner at 8"}},
      {"span",
       "{\"unread\":true,\"no_groups\":false,\"assert\":[\"rows_total>0\",\"ms<9\"],"
       "\"include_reactions\":true,\"since\":\"7d\",\"budget\":2000.0}",
       {"--since", "7d", "--assert", "rows_total>0", "--assert", "ms<9", "--include-reactions",
        "--unread", "--budget", "2000"}},
      {"thread", "{\"who\":\"5550123\",\"text\":\"--limit\"}", {"--who", "5550123", "--limit"}},
      {"sql", "{\"text\":\"SELECT 1\",\"limit\":-1}", {"--limit", "-1", "SELECT 1"}},
      {"who", "{\"text\":\"me\"}", {"me"}},
      {"mail", "{\"text\":\"invoice\",\"unread\":true}", {"--unread", "invoice"}},
      {"doctor", "{}", {}},
  };
  for (const Case& c : cases) {
    Recorder rec;
    TeskMCPServer server = rec.server();
    Node r = answer(server, call(c.tool, c.arguments));
    ASSERT_TRUE(r.member("result")) << c.tool << " " << c.arguments;
    Strings expected{"/bin/tesk-mcp", c.tool};
    expected.insert(expected.end(), c.args.begin(), c.args.end());
    EXPECT_EQ(rec.args, expected) << c.arguments;
  }
}

TEST(TeskMCPTools, WrongShapesAreInvalidParams) {
  const std::pair<const char*, const char*> cases[] = {
      {"nope", "{}"},
      {"span", "[]"},
      {"span", "\"x\""},
      {"span", "{\"limit\":\"5\"}"},
      {"span", "{\"limit\":1.5}"},
      {"span", "{\"limit\":1e300}"},
      {"span", "{\"include_reactions\":\"yes\"}"},
      {"span", "{\"assert\":\"rows_total>0\"}"},
      {"span", "{\"assert\":[1]}"},
      {"span", "{\"who\":null}"},
      {"span", "{\"include-reactions\":true}"},
      {"span", "{\"colour\":\"red\"}"},
      {"views", "{\"text\":\"x\"}"},
      {"doctor", "{\"limit\":1}"},
      {"search", "{\"text\":[\"a\"]}"},
  };
  for (auto [tool, arguments] : cases) {
    Recorder rec;
    TeskMCPServer server = rec.server();
    Node r = answer(server, call(tool, arguments));
    EXPECT_EQ(errorCode(r), -32602) << tool << " " << arguments;
    EXPECT_TRUE(rec.args.empty());
  }
}

TEST(TeskMCPTools, TheAnswerCarriesThePrintedTextExitAndReceipt) {
  struct Case {
    int32_t exit;
    std::string printed;
    bool isError;
    const char* receiptQuery;  // nullptr: no receipt
  };
  const Case cases[] = {
      {0, "#tesk {\"v\":1,\"q\":\"span\"}\nrow\n#tesk {\"v\":1,\"q\":\"span\"}", false, "span"},
      {2, "#tesk {\"v\":1,\"q\":\"im\"}\n#tesk {\"v\":1,\"q\":\"im\"}", false, "im"},
      {3, "#tesk {\"v\":1,\"q\":\"a\"}\n#tesk {\"v\":1,\"q\":\"a\"}\ntesk: assertion failed", false,
       "a"},
      {4, "tesk: `thread` needs --who", true, nullptr},
      {5, "#tesk {\"v\":1,\"q\":\"sql\"}\ntesk: store\n#tesk {\"v\":1,\"q\":\"sql\"}", true, "sql"},
      {0, "#tesk {not json", false, nullptr},
  };
  for (const Case& c : cases) {
    Recorder rec;
    rec.exit = c.exit;
    rec.printed = c.printed;
    TeskMCPServer server = rec.server();
    Node r = answer(server, call("span", "{}"));
    const Node& result = *r.member("result");
    ASSERT_EQ(result.member("content")->array()->size(), 1u);
    const Node& text = result.member("content")->array()->at(0);
    EXPECT_EQ(*text.member("type")->string(), "text");
    EXPECT_EQ(*text.member("text")->string(), c.printed + "\n");
    EXPECT_EQ(*result.member("isError")->boolean(), c.isError) << c.exit;
    const Node& structured = *result.member("structuredContent");
    EXPECT_EQ(*structured.member("exit")->number(), c.exit);
    if (c.receiptQuery) {
      EXPECT_EQ(*structured.member("receipt")->member("q")->string(), c.receiptQuery);
    } else {
      EXPECT_TRUE(structured.member("receipt")->isNull()) << c.printed;
    }
  }
}

TEST(TeskMCPServer, AThrowingRunIsAnErrorAndTheSessionGoesOn) {
  Recorder rec;
  rec.fail = true;
  TeskMCPServer server = rec.server();
  EXPECT_EQ(errorCode(answer(server, call("span", "{}"))), -32603);
  rec.fail = false;
  EXPECT_TRUE(answer(server, call("span", "{}")).member("result"));
}

// A private unlinked file holding `bytes`, read from its start.
std::unique_ptr<FILE, int (*)(FILE*)> fileWith(const std::string& bytes) {
  std::unique_ptr<FILE, int (*)(FILE*)> f(std::tmpfile(), &std::fclose);
  if (!bytes.empty()) std::fwrite(bytes.data(), 1, bytes.size(), f.get());
  std::fflush(f.get());
  std::rewind(f.get());
  return f;
}

std::string contents(FILE* f) {
  std::string out;
  std::rewind(f);
  char buf[4096];
  size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) out.append(buf, n);
  return out;
}

TEST(TeskMCPServer, ServesAStreamOneAnswerPerLine) {
  const std::string ping = "{\"jsonrpc\":\"2.0\",\"id\":%d,\"method\":\"ping\"}";
  auto pingWith = [&](int id) {
    char buf[80];
    std::snprintf(buf, sizeof buf, ping.c_str(), id);
    return std::string(buf);
  };
  // Several messages in one read, a line far past the cap, garbage, and a last message
  // without its line feed.
  std::string input = pingWith(1) + "\n" + pingWith(2) + "\r\n\n" +
                      std::string(TeskMCPFraming::kMaxLine + 10, '{') + "\n" + "}{\n" + pingWith(3);
  auto in = fileWith(input);
  auto out = fileWith("");
  Recorder rec;
  TeskMCPServer server = rec.server();
  EXPECT_TRUE(server.serve(fileno(in.get()), fileno(out.get())));
  std::string written = contents(out.get());
  Strings lines;
  for (size_t start = 0, end; (end = written.find('\n', start)) != std::string::npos;
       start = end + 1)
    lines.push_back(written.substr(start, end - start));
  ASSERT_EQ(lines.size(), 5u) << written;
  std::vector<double> codes, ids;
  for (const std::string& l : lines) {
    Node n = TeskJSONValue::parse(l).value();
    codes.push_back(errorCode(n));
    ids.push_back(n.member("id")->number() ? *n.member("id")->number() : 0);
  }
  EXPECT_EQ(codes, (std::vector<double>{0, 0, -32600, -32700, 0}));
  EXPECT_EQ(ids, (std::vector<double>{1, 2, 0, 0, 3}));
}

}  // namespace
