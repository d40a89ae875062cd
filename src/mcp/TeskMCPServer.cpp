#include "mcp/TeskMCPServer.h"

#include <unistd.h>

#include <cerrno>

#include "mcp/TeskMCPTools.h"

namespace {

using TeskJSON::Object;
using namespace TeskMCPFraming;

constexpr std::string_view kNoId = "null";

constexpr std::string_view kInstructions =
    "tesk reads this Mac's messages, mail, calendar, reminders and browser history, "
    "read-only. Every answer is framed by two identical receipt lines that state its "
    "denominator; an answer with one receipt was cut short. Call `api` for the surface, "
    "`doctor` for what each source can see.";

bool blank(std::string_view s) { return s.find_first_not_of(" \t\r") == std::string_view::npos; }

// The id as JSON, when it is one JSON-RPC allows (a string or a number).
std::optional<std::string> idText(const TeskJSONValue::Value& id) {
  std::string out;
  if (const std::string* s = id.string()) {
    TeskJSON::appendString(out, *s);
  } else if (id.number()) {
    out = id.numberText;  // as sent: a client matches answers to requests by it
  } else {
    return std::nullopt;
  }
  return out;
}

bool writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t n = ::write(fd, bytes.data(), bytes.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    bytes.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

}  // namespace

const std::vector<std::string_view>& TeskMCPServer::protocolVersions() {
  static const std::vector<std::string_view> versions{"2025-06-18", "2025-03-26", "2024-11-05"};
  return versions;
}

std::optional<std::string> TeskMCPServer::handle(const Line& line) {
  if (line.tooLong) {
    return error(kNoId, invalidRequest,
                 "message longer than " + std::to_string(kMaxLine) + " bytes; dropped");
  }
  if (blank(line.text)) return std::nullopt;
  std::optional<TeskJSONValue::Value> parsed = TeskJSONValue::parse(line.text);
  if (!parsed) return error(kNoId, parseError, "Parse error: the line is not JSON");
  const TeskJSONValue::Array* batch = parsed->array();
  if (!batch) return message(*parsed);
  // Batches (2025-03-26): one array of the answers, nothing when all were notifications.
  if (batch->empty()) return error(kNoId, invalidRequest, "Invalid Request: empty batch");
  std::string out;
  for (const TeskJSONValue::Value& item : *batch) {
    auto answer = item.array() ? error(kNoId, invalidRequest, "Invalid Request: nested batch")
                               : message(item);
    if (!answer) continue;
    out += out.empty() ? "[" : ",";
    out += *answer;
  }
  if (out.empty()) return std::nullopt;
  return out + "]";
}

std::optional<std::string> TeskMCPServer::message(const TeskJSONValue::Value& message) {
  if (!message.object()) {
    return error(kNoId, invalidRequest, "Invalid Request: a message is a JSON object");
  }
  const TeskJSONValue::Value* idValue = message.member("id");
  const TeskJSONValue::Value* method = message.member("method");
  std::optional<std::string> id = idValue ? idText(*idValue) : std::nullopt;
  if (idValue && !id) {
    return error(kNoId, invalidRequest, "Invalid Request: id must be a string or a number");
  }
  const TeskJSONValue::Value* version = message.member("jsonrpc");
  if (!version || !version->string() || *version->string() != "2.0") {
    return error(id.value_or(std::string(kNoId)), invalidRequest,
                 "Invalid Request: jsonrpc must be \"2.0\"");
  }
  if (!method) {
    // A response to a request of ours: the server sends none, so there is nothing to match.
    if (id && (message.member("result") || message.member("error"))) return std::nullopt;
    return error(id.value_or(std::string(kNoId)), invalidRequest, "Invalid Request: no method");
  }
  if (!method->string()) {
    return error(id.value_or(std::string(kNoId)), invalidRequest,
                 "Invalid Request: method must be a string");
  }
  // Notifications (initialized, cancelled, ...) change nothing here and get no answer.
  if (!id) return std::nullopt;
  const TeskJSONValue::Value* params = message.member("params");
  if (params && !params->object() && !params->isNull()) {
    return error(*id, invalidParams, "Invalid params: params must be an object");
  }
  return request(*id, *method->string(), params);
}

std::string TeskMCPServer::request(const std::string& id, const std::string& method,
                                   const TeskJSONValue::Value* params) {
  if (method == "initialize") {
    std::string_view chosen = protocolVersions().front();
    const TeskJSONValue::Value* asked = params ? params->member("protocolVersion") : nullptr;
    if (asked && asked->string()) {
      for (std::string_view v : protocolVersions())
        if (v == *asked->string()) chosen = v;
    }
    return result(id, Object{
                          {"protocolVersion", chosen},
                          {"capabilities", Object{{"tools", Object{{"listChanged", false}}}}},
                          {"serverInfo", Object{{"name", "tesk"}, {"version", TESK_VERSION}}},
                          {"instructions", kInstructions},
                      });
  }
  if (method == "ping") return result(id, Object{});
  if (method == "tools/list") return result(id, Object{{"tools", TeskMCPTools::list()}});
  if (method == "tools/call") return toolCall(id, params);
  return error(id, methodNotFound, "Method not found: " + method);
}

std::string TeskMCPServer::toolCall(const std::string& id, const TeskJSONValue::Value* params) {
  const TeskJSONValue::Value* name = params ? params->member("name") : nullptr;
  if (!name || !name->string()) {
    return error(id, invalidParams, "Invalid params: tools/call needs a tool name");
  }
  TeskMCPTools::CommandLine call =
      TeskMCPTools::commandLine(program_, *name->string(), params->member("arguments"));
  if (!call.problem.empty()) return error(id, invalidParams, call.problem);
  // A fresh run per call: stores are opened anew and released (snapshots removed)
  // before the answer is written.
  TeskOut out(TeskOut::Sink::memory);
  int32_t exit = 0;
  try {
    exit = runner_(call.args, out);
  } catch (const std::exception& e) {
    return error(id, internalError, std::string("tesk: ") + e.what());
  }
  out.flush();
  return result(id, TeskMCPTools::answer(exit, out.captured()));
}

bool TeskMCPServer::serve(int in, int out) {
  LineReader reader;
  auto answer = [&](const Line& line) {
    std::optional<std::string> response = handle(line);
    return !response || writeAll(out, *response + "\n");
  };
  std::string chunk(65536, '\0');
  for (;;) {
    ssize_t n = ::read(in, chunk.data(), chunk.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;  // the end of input (or a broken one) ends the session
    reader.feed(std::string_view(chunk.data(), static_cast<size_t>(n)));
    while (auto line = reader.next())
      if (!answer(*line)) return false;
  }
  while (auto line = reader.finish())
    if (!answer(*line)) return false;
  return true;
}
