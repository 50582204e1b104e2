// Two threads that count without a lock, which ThreadSanitizer must report.

#include <thread>

int main()
{
    int count = 0;
    std::thread other([&] { ++count; });
    ++count;
    other.join();
    return count == 2 ? 0 : 1;
}
