#include "output/tools_module_output.h"

#include <cstdio>
#include <iostream>
#include <utility>
#include <vector>

namespace kelo {

std::mutex ToolsModuleOutput::console_mutex_;

ToolsModuleOutput::ToolsModuleOutput() : message_buffer_(new char[kMessageBufferSize]) {
  message_buffer_[0] = '\0';
}

ToolsModuleOutput::~ToolsModuleOutput() { delete[] message_buffer_; }

Output::~Output() = default;

void ToolsModuleOutput::print_message(const std::string& msg, bool newline, bool print) {
  if (print) output_message(msg, newline);
  send_string_message(msg);
}

std::string ToolsModuleOutput::format_text(const char* format, va_list args) {
  va_list retry;
  va_copy(retry, args);
  std::string text;
  {
    std::lock_guard<std::mutex> hold(buffer_mutex_);
    int length = std::vsnprintf(message_buffer_, kMessageBufferSize, format, args);
    if (length >= 0 && static_cast<size_t>(length) < kMessageBufferSize) {
      text.assign(message_buffer_);
    } else if (length >= 0) {
      std::vector<char> large(static_cast<size_t>(length) + 1);
      std::vsnprintf(large.data(), large.size(), format, retry);
      text.assign(large.data());
    }
  }
  va_end(retry);
  return text;
}

void ToolsModuleOutput::print_format(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string text = format_text(format, args);
  va_end(args);
  print_message(text, false, true);
}

void ToolsModuleOutput::cache_message(const std::string& msg, bool newline, bool print) {
  {
    std::lock_guard<std::mutex> hold(state_mutex_);
    message_cache_.push_back(msg);
    if (newline) message_cache_.emplace_back("\n");
  }
  if (print) output_message(msg, newline);
}

void ToolsModuleOutput::fflush_message() {
  std::list<std::string> cached;
  {
    std::lock_guard<std::mutex> hold(state_mutex_);
    cached.swap(message_cache_);
  }
  size_t size = 0;
  for (const std::string& entry : cached) size += entry.size();
  std::string text;
  text.reserve(size);
  for (const std::string& entry : cached) text += entry;
  send_string_message(text);
}

void ToolsModuleOutput::clear_message_cache() {
  std::list<std::string> discarded;
  std::lock_guard<std::mutex> hold(state_mutex_);
  discarded.swap(message_cache_);
}

void ToolsModuleOutput::output_message(const std::string& msg, bool newline) {
  std::lock_guard<std::mutex> hold(console_mutex_);
  std::printf("%s", msg.c_str());
  if (newline) {
    std::cout.put(std::cout.widen('\n'));
    std::cout.flush();
  }
}

ToolsModuleOutput::SharedFunc ToolsModuleOutput::string_func() const {
  std::lock_guard<std::mutex> hold(state_mutex_);
  return output_string_func_;
}

ToolsModuleOutput::SharedFunc ToolsModuleOutput::json_func() const {
  std::lock_guard<std::mutex> hold(state_mutex_);
  return output_json_func_;
}

void ToolsModuleOutput::send_string_message(const std::string& msg) {
  SharedFunc func = string_func();
  if (func) (*func)(msg);
}

void ToolsModuleOutput::send_json_message(const Json::Value& value) {
  SharedFunc func = json_func();
  if (!func) return;
  if (value == Json::Value::null) return;
  (*func)(value.toStyledString());
}

void ToolsModuleOutput::send_json_message(std::string error_code, std::string error_string) {
  Json::Value value;
  value["error_code"] = Json::Value(error_code);
  value["error_string"] = Json::Value(error_string);
  send_json_message(value);
}

void ToolsModuleOutput::send_json_message(std::string error_code, std::string error_string,
                                          const Json::Value& data) {
  Json::Value value;
  value["error_code"] = Json::Value(error_code);
  value["error_string"] = Json::Value(error_string);
  value["data"] = data;
  send_json_message(value);
}

void ToolsModuleOutput::set_output_string_func(OutputFunc func) {
  SharedFunc next = func ? std::make_shared<const OutputFunc>(std::move(func)) : nullptr;
  std::lock_guard<std::mutex> hold(state_mutex_);
  // The previous sink is released after the lock, when `next` goes out of scope.
  output_string_func_.swap(next);
}

void ToolsModuleOutput::set_output_json_func(OutputFunc func) {
  SharedFunc next = func ? std::make_shared<const OutputFunc>(std::move(func)) : nullptr;
  std::lock_guard<std::mutex> hold(state_mutex_);
  output_json_func_.swap(next);
}

}  // namespace kelo
