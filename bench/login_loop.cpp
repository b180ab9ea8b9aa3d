// The yardstick of a login: the same two exchanges by libcurl alone. `login_loop URL ROOTS`: for each line of standard
// input it makes 50 of them, each exchange with a connection and a handshake of its own, and prints seconds of wall and
// CPU time per login as JSON.
#include <chrono>
#include <cstdio>
#include <ctime>
#include <string>

#include <curl/curl.h>

namespace {

constexpr int kCount = 50;

double Seconds(clockid_t clock) {
  timespec time{};
  clock_gettime(clock, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

std::size_t Take(char *bytes, std::size_t size, std::size_t count, void *reply) {
  static_cast<std::string *>(reply)->append(bytes, size * count);
  return size * count;
}

void Exchange(CURL *curl, std::string const &url, char const *form) {
  std::string reply;
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &reply);
  if (form)
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, form);
  else
    curl_easy_setopt(curl, CURLOPT_HTTPGET, 1L);
  CURLcode const code = curl_easy_perform(curl);
  if (code != CURLE_OK || reply.empty()) {
    std::fprintf(stderr, "login_loop: %s\n", curl_easy_strerror(code));
    std::exit(1);
  }
}

} // namespace

int main(int argc, char **argv) {
  if (argc != 3)
    return 2;
  CURL *const curl = curl_easy_init();
  std::string const url = argv[1];
  curl_easy_setopt(curl, CURLOPT_CAINFO, argv[2]);
  curl_easy_setopt(curl, CURLOPT_CAPATH, nullptr);
  curl_easy_setopt(curl, CURLOPT_FRESH_CONNECT, 1L);
  curl_easy_setopt(curl, CURLOPT_FORBID_REUSE, 1L);
  curl_easy_setopt(curl, CURLOPT_SSL_SESSIONID_CACHE, 0L);
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, Take);
  for (int c; (c = std::getchar()) != EOF;) {
    if (c != '\n')
      continue;
    double const wall = Seconds(CLOCK_MONOTONIC), cpu = Seconds(CLOCK_PROCESS_CPUTIME_ID);
    for (int n = 0; n < kCount; ++n) {
      Exchange(curl, url + "/", nullptr);
      Exchange(curl, url + "/servlet/memLogin", "account=member&pwd=password&AP=TWR&Version=1.0&versionType=bench");
    }
    std::printf("{\"wall\": %.9f, \"cpu\": %.9f}\n", (Seconds(CLOCK_MONOTONIC) - wall) / kCount,
                (Seconds(CLOCK_PROCESS_CPUTIME_ID) - cpu) / kCount);
    std::fflush(stdout);
  }
}
