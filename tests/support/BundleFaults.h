#pragma once

namespace support {

// Changes what the library is told of every bundle while it lives: what a platform's container may do, and the
// stand-in never does. The tests' own calls are answered as ever.
class BundleFaults {
public:
    BundleFaults();
    BundleFaults(const BundleFaults&) = delete;
    BundleFaults& operator=(const BundleFaults&) = delete;
    ~BundleFaults();

    // The number of entries, whatever there are.
    void TellCount(int count);
    // The last entry first, as where entries are kept in another order than their keys' addresses.
    void VisitBackwards();
    // Every entry as one of this type.
    void VisitAs(int type);
    // All entries, and then all of them again.
    void VisitTwice();
    // Every entry twice more before its turn: without its key, and without its value.
    void VisitHalves();
    // The text of every entry that is one; it must outlive the calls.
    void GiveText(const char* text);
};

}  // namespace support
