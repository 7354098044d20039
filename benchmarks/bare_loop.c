// bare_loop TRACE: the floor of an update. Sends the requests of a trace of the simulator to the
// QM5 on the bus, in their order and one by one, by libusb alone, and does nothing else.
#include <libusb.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { kVendor = 0x0451, kProduct = 0xACE1, kLongestData = 64, kLongestLine = 1024 };

struct Request {
  uint8_t type;
  uint8_t request;
  uint16_t value;
  uint16_t index;
  uint16_t length;
  unsigned char data[kLongestData];
};

struct Requests {
  struct Request* first;
  size_t count;
};

static void fail(const char* reason) {
  fprintf(stderr, "bare_loop: %s\n", reason);
  exit(1);
}

static struct Request parse(const char* line) {
  struct Request request = {0};
  char digits[2 * kLongestData + 1] = "";
  if (sscanf(
          line,
          "{\"t\":%*[0-9.],\"bmRequestType\":%hhu,\"bRequest\":%hhu,\"wValue\":%hu,\"wIndex\":%hu,"
          "\"wLength\":%hu,\"data\":\"%128[0-9a-f]",
          &request.type, &request.request, &request.value, &request.index, &request.length,
          digits) < 5 ||
      request.length > kLongestData)
    fail("not a line of a trace");
  for (size_t i = 0; 2 * i + 1 < strlen(digits); ++i)
    sscanf(digits + 2 * i, "%2hhx", &request.data[i]);
  return request;
}

static struct Requests readTrace(const char* path) {
  struct Requests requests = {NULL, 0};
  char line[kLongestLine];
  FILE* file = fopen(path, "r");
  if (!file) fail("the trace can't be read");
  while (fgets(line, sizeof line, file)) {
    requests.first = realloc(requests.first, (requests.count + 1) * sizeof *requests.first);
    if (!requests.first) fail("out of memory");
    requests.first[requests.count++] = parse(line);
  }
  fclose(file);
  return requests;
}

int main(int argc, char** argv) {
  if (argc != 2) fail("usage: bare_loop TRACE");
  const struct Requests requests = readTrace(argv[1]);
  if (libusb_init(NULL) != LIBUSB_SUCCESS) fail("no libusb");
  libusb_device_handle* device = libusb_open_device_with_vid_pid(NULL, kVendor, kProduct);
  if (!device) fail("no QM5 can be opened");
  for (size_t i = 0; i < requests.count; ++i) {
    struct Request* each = &requests.first[i];
    if (libusb_control_transfer(device, each->type, each->request, each->value, each->index,
                                each->data, each->length, 0) < 0)
      fail("a request failed");
  }
  libusb_close(device);
  libusb_exit(NULL);
  free(requests.first);
  return 0;
}
