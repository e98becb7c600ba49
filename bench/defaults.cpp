// The time to store and to read a setting.
#include "bench/Row.h"
#include "bench/Store.h"

int main() {
  using namespace kva;
  const bench::Folder folder;
  bench::Series first, again, large, small, readLarge, readSmall;
  std::unique_ptr<SqliteDefaults> store;
  std::filesystem::path file;
  const auto open = [&] { store = std::make_unique<SqliteDefaults>(file, bench::complain); };
  for (int i = 0; i < 20; ++i) {
    store.reset();
    file = folder.file(std::to_string(i));
    first.time(open);
  }
  for (int i = 0; i < 100; ++i) store->set("ballast " + std::to_string(i), Bytes(5'000));
  for (int i = 0; i < 20; ++i) {
    store.reset();
    again.time(open);
  }
  for (int i = 0; i < 2000; ++i) {
    Bytes value(20'000, static_cast<std::byte>(i));
    large.time([&] { store->set("large", std::move(value)); });
    small.time([&] { store->set("small", std::int64_t{i}); });
    readLarge.time([&] { store->value("large"); });
    readSmall.time([&] { store->value("small"); });
  }
  const auto row = [](const char* what, const bench::Series& series, double most) {
    bench::printRow(what, "us", series.median(), std::nullopt,
                    {.ratio = {}, .atLeast = {}, .plus = most});
  };
  row("open a store where there is no file", first, 10'000);
  row("open a store of 500 KB", again, 5'000);
  row("set 20 KB", large, 150);
  row("set a number", small, 40);
  row("read 20 KB", readLarge, 30);
  row("read a number", readSmall, 10);
}
