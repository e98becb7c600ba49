// The time to store and to read a setting.
#include <filesystem>
#include <iostream>

#include "bench/measure.h"
#include "platform/linux/SqliteDefaults.h"

int main() {
  using namespace kva;
  const auto folder = std::filesystem::temp_directory_path() / "kelvara-bench";
  std::filesystem::remove_all(folder);
  const auto log = [](const std::string& line) { std::cerr << line << '\n'; };
  const auto file = folder / "defaults.sqlite";
  bench::Series first("open where there is no file"), again("open an existing file");
  std::unique_ptr<SqliteDefaults> store;
  first.measure([&] { store = std::make_unique<SqliteDefaults>(file, log); });
  for (int i = 0; i < 100; ++i) store->set("ballast " + std::to_string(i), Bytes(5'000));
  store.reset();
  for (int i = 0; i < 20; ++i) {
    again.measure([&] { store = std::make_unique<SqliteDefaults>(file, log); });
    if (i < 19) store.reset();
  }
  bench::Series large("set 20 KB"), small("set a number"), readLarge("read 20 KB"),
      readSmall("read a number");
  for (int i = 0; i < 5000; ++i) {
    Bytes value(20'000, static_cast<std::byte>(i));
    large.measure([&] { store->set("large", std::move(value)); });
    small.measure([&] { store->set("small", std::int64_t{i}); });
    readLarge.measure([&] { store->value("large"); });
    readSmall.measure([&] { store->value("small"); });
  }
  for (auto* series : {&first, &again, &large, &small, &readLarge, &readSmall}) series->print();
  store.reset();
  std::filesystem::remove_all(folder);
}
