#include "sampling/power_metrics.h"

#include <poll.h>
#include <unistd.h>

#include <cmath>
#include <cstring>

#include "helper_link/pelmora.h"
#include "support/logger.h"
#include "support/text.h"

namespace pelmora {
namespace {

// The child writes its lines after the sample interval; should it hang (a stuck MSR read), the job
// gives up after this much longer rather than holding the timer thread, and stop() with it, forever.
constexpr int kReadGrace_ms = 10000;

constexpr char kReplacement[] = "\xEF\xBF\xBD";  // U+FFFD

// Length of the valid UTF-8 sequence starting at p, or 0 when it is not one.
size_t utf8SequenceLength(const unsigned char* p, size_t available) {
  struct Form {
    unsigned char mask, lead;
    size_t length;
    uint32_t min;
  };
  static constexpr Form kForms[] = {{0x80, 0x00, 1, 0}, {0xE0, 0xC0, 2, 0x80}, {0xF0, 0xE0, 3, 0x800},
                                    {0xF8, 0xF0, 4, 0x10000}};
  const Form* form = nullptr;
  for (const Form& f : kForms)
    if ((p[0] & f.mask) == f.lead) form = &f;
  if (!form || form->length > available) return 0;
  uint32_t code = p[0] & static_cast<unsigned char>(~form->mask);
  for (size_t i = 1; i < form->length; ++i) {
    if ((p[i] & 0xC0) != 0x80) return 0;
    code = (code << 6) | (p[i] & 0x3F);
  }
  const uint32_t min = form->min;
  const size_t length = form->length;
  // Overlong forms, UTF-16 surrogates and values beyond Unicode are not valid.
  if (code < min || (code >= 0xD800 && code <= 0xDFFF) || code > 0x10FFFF) return 0;
  return length;
}

}  // namespace

const std::shared_ptr<PowerMetrics>& PowerMetrics::shared() {
  static auto* instance = new std::shared_ptr<PowerMetrics>(std::make_shared<PowerMetrics>(Pelmora::shared()));
  return *instance;
}

PowerMetrics::PowerMetrics(Pelmora& helper) : m_helper(helper) {}

PowerMetrics::~PowerMetrics() {
  MutexLock lock(m_mutex);
  stop();
}

void PowerMetrics::start() {
  if (m_timer) return;
  m_timer = std::make_unique<TimerQueue>(kTimerLabel, int64_t{m_interval_s} * USEC, nullptr,
                                         [this, generation = m_generation] {
                                           MutexLock lock(m_mutex);
                                           measureLocked(generation);
                                         });
  m_timer->start(QoS::userInteractive);
}

void PowerMetrics::stop() {
  if (!m_timer) return;
  std::unique_ptr<TimerQueue> timer = std::move(m_timer);
  m_frequency.clear();
  ++m_generation;
  m_mutex.unlock();
  timer->stop();
  m_mutex.lock();
}

double PowerMetrics::frequency_mhz(size_t cpu) { return cpu < m_frequency.size() ? m_frequency[cpu] : 0.0; }

void PowerMetrics::setInterval_s(int interval_s) {
  MutexLock lock(m_mutex);
  if (interval_s < 1) {
    Log("Power metrics interval of " + std::to_string(interval_s) + " s refused; it stays " +
        std::to_string(m_interval_s) + " s.");
    return;
  }
  m_interval_s = interval_s;
  if (m_timer) m_timer->setPeriod_us(int64_t{m_interval_s} * USEC);
}

void PowerMetrics::measure() {
  MutexLock lock(m_mutex);
  measureLocked(m_generation);
}

void PowerMetrics::measureLocked(uint64_t generation) {
  if (generation != m_generation) return;  // queued before a stop(): that timer is gone
  if (!m_use_powermetrics) {
    m_frequency.clear();
    return;
  }
  auto reply = m_helper.powerMetrics(m_sample_interval_ms);
  if (reply.status != 0 || !reply.fd.valid()) return;
  const std::string text = readAllReleasingLock(reply.fd.get());
  reply.fd.reset();
  if (text.empty() || generation != m_generation) return;
  m_frequency = parseFrequencies(text);
}

std::string PowerMetrics::readAllReleasingLock(int fd) {
  const int timeout_ms = m_sample_interval_ms + kReadGrace_ms;
  std::string text;
  char buffer[kReadBufferBytes];
  for (;;) {
    m_mutex.unlock();
    pollfd wait{fd, POLLIN, 0};
    const ssize_t n = ::poll(&wait, 1, timeout_ms) == 1 ? ::read(fd, buffer, sizeof buffer - 1) : -1;
    m_mutex.lock();
    if (n <= 0) break;
    text += decodeChunk(buffer, static_cast<size_t>(n));
  }
  return text;
}

std::string PowerMetrics::decodeChunk(const char* data, size_t size) {
  // Each chunk is taken as a zero-terminated string: a zero byte ends it.
  size = strnlen(data, size);
  const auto* bytes = reinterpret_cast<const unsigned char*>(data);
  std::string out;
  out.reserve(size);
  for (size_t i = 0; i < size;) {
    const size_t length = utf8SequenceLength(bytes + i, size - i);
    if (length == 0) {
      out += kReplacement;
      ++i;
    } else {
      out.append(data + i, length);
      i += length;
    }
  }
  return out;
}

// Rules, in order, for each non-empty line: its lower-case form must contain "frequency"; split at
// ':' it must have exactly two parts (empty ones count, so a second colon anywhere rejects it); the
// upper-case first part must contain "CPU"; the second part split at spaces (empty pieces dropped)
// needs at least two pieces (number and unit), the first of which must be wholly a finite decimal
// number. "CPU 3 frequency: 2064 MHz" gives 2064; GPU lines and unitless lines give nothing.
std::vector<double> PowerMetrics::parseFrequencies(std::string_view text) {
  std::vector<double> out;
  for (std::string_view line : split(text, '\n', false)) {
    if (toLower(line).find("frequency") == std::string::npos) continue;
    const auto parts = split(line, ':', true);
    if (parts.size() != 2) continue;
    if (toUpper(parts[0]).find("CPU") == std::string::npos) continue;
    const auto pieces = split(parts[1], ' ', false);
    if (pieces.size() < 2) continue;
    const auto value = parseDouble(pieces[0]);
    if (value && std::isfinite(*value)) out.push_back(*value);
  }
  return out;
}

}  // namespace pelmora
