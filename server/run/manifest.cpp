#include "manifest.hpp"

#include <cstdio>
#include <ctime>
#include <fstream>
#include <sstream>

#include "../vorx.h"

namespace vorx::server {
namespace {

std::string iso_time(Clock::time_point t) {
  std::time_t seconds = Clock::to_time_t(t);
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char text[64];
  auto millis = std::chrono::duration_cast<std::chrono::milliseconds>(t.time_since_epoch()).count() % 1000;
  std::snprintf(text, sizeof(text), "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", utc.tm_year + 1900,
                utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, (int)millis);
  return text;
}

std::string optional_time(const std::optional<Clock::time_point> &t) {
  return t ? json_string(iso_time(*t)) : "null";
}

}  // namespace

std::string json_string(const std::string &text) {
  std::string out = "\"";
  for (unsigned char ch : text) {
    switch (ch) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\t': out += "\\t"; break;
      case '\r': out += "\\r"; break;
      default:
        if (ch < 0x20) {
          char esc[8];
          std::snprintf(esc, sizeof(esc), "\\u%04x", ch);
          out += esc;
        } else {
          out += (char)ch;
        }
    }
  }
  return out + "\"";
}

std::string manifest_json(const RunRecord &run) {
  std::ostringstream o;
  o << "{\n  \"tool\": \"vorx\",\n  \"version\": " << json_string(vorx::version()) << ",\n";
  o << "  \"command\": [";
  for (size_t i = 0; i < run.command.size(); i++) o << (i ? ", " : "") << json_string(run.command[i]);
  o << "],\n  \"options\": {";
  for (size_t i = 0; i < run.options.size(); i++)
    o << (i ? ", " : "") << json_string(run.options[i].first) << ": " << json_string(run.options[i].second);
  o << "},\n";
  o << "  \"server\": " << json_string(run.server_name) << ",\n";
  o << "  \"results_dir\": " << json_string(run.results_dir) << ",\n";
  o << "  \"root_pid\": " << run.root_pid << ",\n";
  o << "  \"exit_status\": " << run.exit_status << ",\n";
  o << "  \"started\": " << json_string(iso_time(run.started)) << ",\n";
  o << "  \"finished\": " << json_string(iso_time(run.finished)) << ",\n";
  o << "  \"duration_s\": "
    << std::chrono::duration<double>(run.finished - run.started).count() << ",\n";
  o << "  \"reports\": {\"errors\": " << run.errors << ", \"warnings\": " << run.warnings << "},\n";
  o << "  \"records_lost\": " << run.records_lost() << ",\n";
  o << "  \"processes\": [";
  for (size_t i = 0; i < run.processes.size(); i++) {
    const ProcessInfo &p = run.processes[i];
    o << (i ? "," : "") << "\n    {\"pid\": " << p.pid << ", \"parent\": " << p.parent
      << ", \"name\": " << json_string(p.name) << ", \"profiled\": " << (p.profiled ? "true" : "false")
      << ", \"configurations\": " << p.configs << ", \"ready\": " << optional_time(p.ready_at)
      << ", \"ended\": " << optional_time(p.ended_at) << ", \"exited\": " << optional_time(p.died_at)
      << ", \"exit_code\": " << (p.exit_code ? std::to_string(*p.exit_code) : "null")
      << ", \"exit_signal\": " << (p.exit_signal ? std::to_string(*p.exit_signal) : "null")
      << ", \"records_lost\": " << p.records_lost << ", \"loss_causes\": " << p.loss_causes << "}";
  }
  o << "\n  ]\n}\n";
  return o.str();
}

bool write_manifest(const RunRecord &run, std::string &error) {
  std::string path = run.results_dir + "manifest.json";
  std::ofstream out(path);
  out << manifest_json(run);
  out.close();
  if (!out) {
    error = "cannot write " + path;
    return false;
  }
  return true;
}

}  // namespace vorx::server
