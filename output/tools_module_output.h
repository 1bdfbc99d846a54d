#ifndef KELO_OUTPUT_TOOLS_MODULE_OUTPUT_H_
#define KELO_OUTPUT_TOOLS_MODULE_OUTPUT_H_

#include <cstdarg>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>

#include <json/value.h>

namespace kelo {

// The channel through which the recorder and the player report to their user. Every text
// goes to standard output and, when the embedding tool installed one, to a string sink; JSON
// documents go only to the JSON sink. Texts can also be cached and handed to the string sink
// later as one block.
//
//   output->set_output_string_func([](const std::string& s) { log += s; });
//   output->print_format("save to file: %s\n", name.c_str());  // console and sink
//
// Every member may be called from any thread. The console keeps each text whole (a text
// and its line end are never split by another thread's text); the sinks are called outside
// any lock of the channel, so a sink may print through the channel itself.
class ToolsModuleOutput {
 public:
  using OutputFunc = std::function<void(const std::string&)>;

  // Size of the formatting area of print_format. Longer texts are still printed whole.
  static constexpr size_t kMessageBufferSize = 4096;

  ToolsModuleOutput();
  virtual ~ToolsModuleOutput();

  ToolsModuleOutput(const ToolsModuleOutput&) = delete;
  ToolsModuleOutput& operator=(const ToolsModuleOutput&) = delete;

  // Console (when `print`), with a line end and a flush when `newline`; then the string
  // sink, which receives `msg` exactly, never with a line end added.
  void print_message(const std::string& msg, bool newline, bool print);
  void print_message(const std::string& msg, bool print) { print_message(msg, false, print); }
  void print_messagel(const std::string& msg, bool print) { print_message(msg, true, print); }

  // Formats with printf rules, then print_message(text, false, true).
  void print_format(const char* format, ...) __attribute__((format(printf, 2, 3)));

  // Keeps `msg` (and a separate "\n" when `newline`) for the next fflush_message; prints it
  // on the console at once when `print`. The string sink receives nothing now.
  void cache_message(const std::string& msg, bool newline, bool print);
  void cache_message(const std::string& msg, bool print) { cache_message(msg, false, print); }
  void cache_messagel(const std::string& msg, bool print) { cache_message(msg, true, print); }
  // Hands the cached texts, concatenated oldest first, to the string sink in one call (an
  // empty string when nothing is cached) and empties the cache, before the sink runs.
  void fflush_message();
  // Empties the cache without sending it.
  void clear_message_cache();

  // Console only: `msg` up to its first NUL through printf, then, when `newline`, a line
  // end and a flush through std::cout. Without `newline` nothing is flushed.
  void output_message(const std::string& msg, bool newline);
  // Calls the string sink with `msg` when one is set.
  void send_string_message(const std::string& msg);

  // Renders `value` with toStyledString() for the JSON sink; a null value is never sent.
  void send_json_message(const Json::Value& value);
  // Sends {"error_code": error_code, "error_string": error_string}.
  void send_json_message(std::string error_code, std::string error_string);
  // Sends {"error_code": ..., "error_string": ..., "data": data}; a null `data` is sent as a
  // member with the null value.
  void send_json_message(std::string error_code, std::string error_string, const Json::Value& data);

  // Replace a sink; an empty function removes it. A sink call already running finishes with
  // the previous function.
  void set_output_string_func(OutputFunc func);
  void set_output_json_func(OutputFunc func);

 private:
  using SharedFunc = std::shared_ptr<const OutputFunc>;
  SharedFunc string_func() const;
  SharedFunc json_func() const;

  // Formats into message_buffer_ under buffer_mutex_; texts that do not fit are formatted
  // again into a string of their own size.
  std::string format_text(const char* format, va_list args);

  char* message_buffer_;
  std::list<std::string> message_cache_;
  // Held as shared pointers so a caller can take the current sink under the lock and call
  // it after releasing the lock, while another thread replaces it.
  SharedFunc output_string_func_;
  SharedFunc output_json_func_;

  std::mutex buffer_mutex_;         // message_buffer_
  mutable std::mutex state_mutex_;  // message_cache_ and the sinks
  static std::mutex console_mutex_;  // standard output is one per process
};

// The channel that BagRecord and BagPlay own.
class Output : public ToolsModuleOutput {
 public:
  ~Output() override;
};

}  // namespace kelo

#endif  // KELO_OUTPUT_TOOLS_MODULE_OUTPUT_H_
