#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <locale>
#include <set>
#include <thread>
#include <type_traits>

#include "LogCapture.h"
#include "OtherProcess.h"
#include "SharedResults.h"
#include "ShmFaults.h"

namespace {

using support::IsOpen;
using support::LogCapture;
using support::MakeObject;
using support::ObjectBytes;
using support::ObjectExists;
using support::OpenSharedObject;
using support::SharedName;
using support::ShmFaults;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::IsSupersetOf;

constexpr int GREATEST = 2098175;
constexpr int WRONG_SIZES[] = {0, -1, 2098176, INT_MAX, INT_MIN};

const int g_idWhenLoaded = CSharedQueryObject::GetRequestID();

class SharedObject : public support::SharedTest {};
class ShmCreateObject : public support::SharedTest {};
class ShmGetObject : public support::SharedTest {};
class ShmRemoveObject : public support::SharedTest {};
class DetachData : public support::SharedTest {};

// Takes the lowest free descriptor for as long as it lives: the number that was closed last.
class AnyFile {
public:
    AnyFile() : m_descriptor(open("/dev/null", O_RDONLY | O_CLOEXEC)) {}
    AnyFile(const AnyFile&) = delete;
    AnyFile& operator=(const AnyFile&) = delete;
    ~AnyFile() { close(m_descriptor); }
    int Number() const { return m_descriptor; }

private:
    int m_descriptor;
};

// Ends an object whose segment was not removed by the object itself.
void CleanUp(OpenSharedObject& object, int size, const std::string& name) {
    if (object.m_pData != nullptr) {
        munmap(object.m_pData, static_cast<size_t>(size));
        object.m_pData = nullptr;
    }
    shm_unlink(name.c_str());
}

off_t SizeOf(const std::string& name) {
    struct stat status {};
    return stat(("/dev/shm" + name).c_str(), &status) == 0 ? status.st_size : -1;
}

// Whether somebody else holds the object's lock.
bool IsLocked(const std::string& name) {
    const int descriptor = shm_open(name.c_str(), O_RDWR, 0);
    const bool locked = flock(descriptor, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    close(descriptor);
    return locked;
}

// ---- The object itself --------------------------------------------------------------------------------

TEST_F(SharedObject, Constructed_EveryFieldIsZeroOrEmpty) {
    const OpenSharedObject object;
    EXPECT_EQ("", object.m_name);
    EXPECT_EQ(0, object.m_size);
    EXPECT_EQ(0, object.m_dataSize);
    EXPECT_EQ(nullptr, object.m_pData);
    EXPECT_EQ(0, object.m_fd);
    EXPECT_THAT(object.m_buffer, IsEmpty());
}

TEST_F(SharedObject, Interface_OnlyItsDestructorIsVirtual) {
    EXPECT_TRUE(std::has_virtual_destructor_v<ISharedQueryObject>);
    EXPECT_TRUE((std::is_base_of_v<ISharedQueryObject, CSharedQueryObject>));
    EXPECT_EQ(sizeof(void*), sizeof(ISharedQueryObject));
}

TEST_F(SharedObject, Prefix_BeginsEveryName) { EXPECT_EQ("/.vantry_", CSharedQueryObject::SHM_PREFIX); }

TEST_F(SharedObject, Destructor_NeitherUnmapsNorRemoves) {
    const auto name = SharedName("kept");
    const LogCapture log;
    char* data = nullptr;
    {
        OpenSharedObject object;
        object.m_name = name;
        ASSERT_EQ(0, object.ShmCreateObject(4));
        data = object.m_pData;
        const ShmFaults faults;
        object.m_buffer.assign(10, 'x');
    }
    std::copy_n("abcd", 4, data);
    EXPECT_EQ("abcd", ObjectBytes(name));
    EXPECT_THAT(log.Lines(), IsEmpty());
    munmap(data, 4);
    shm_unlink(name.c_str());
}

TEST_F(SharedObject, Destructor_ClosesADescriptorThatIsStillOpen) {
    const auto name = SharedName("open");
    MakeObject(name, "abcd");
    char* data = nullptr;
    int descriptor = -1;
    {
        OpenSharedObject object;
        object.m_name = name;
        data = object.ShmGetObject(4);
        descriptor = object.m_fd;
        ASSERT_TRUE(IsOpen(descriptor));
    }
    EXPECT_FALSE(IsOpen(descriptor));
    EXPECT_EQ("abcd", ObjectBytes(name));
    EXPECT_EQ('a', data[0]);
    munmap(data, 4);
    shm_unlink(name.c_str());
}

// ---- Creating -----------------------------------------------------------------------------------------

TEST_F(ShmCreateObject, SizeOutsideTheRange_Minus22WithTheParameterLine) {
    for (const int size : WRONG_SIZES) {
        OpenSharedObject object;
        object.m_name = SharedName("size");
        const LogCapture log;
        const ShmFaults faults;
        EXPECT_EQ(-22, object.ShmCreateObject(size));
        EXPECT_THAT(log.Lines(),
                    ElementsAre("I ShmCreateObject > Parameter is not proper value - shmSize : " +
                                std::to_string(size) + ", path is NULL : " + SharedName("size")));
        EXPECT_THAT(faults.Order(), IsEmpty());
        EXPECT_EQ(nullptr, object.m_pData);
    }
}

TEST_F(ShmCreateObject, EmptyName_Minus22WithTheParameterLine) {
    OpenSharedObject object;
    const LogCapture log;
    const ShmFaults faults;
    EXPECT_EQ(-22, object.ShmCreateObject(100));
    EXPECT_THAT(log.Lines(), ElementsAre("I ShmCreateObject > Parameter is not proper value - shmSize : 100, "
                                         "path is NULL : "));
    EXPECT_THAT(faults.Order(), IsEmpty());
}

TEST_F(ShmCreateObject, LeastAndGreatestSize_AreMappedWholeAndWritable) {
    for (const int size : {1, GREATEST}) {
        const auto name = SharedName("range");
        OpenSharedObject object;
        object.m_name = name;
        const LogCapture log;
        ASSERT_EQ(0, object.ShmCreateObject(size));
        EXPECT_THAT(log.Lines(), IsEmpty());
        ASSERT_NE(nullptr, object.m_pData);
        EXPECT_EQ(size, SizeOf(name));
        object.m_pData[size - 1] = 'z';
        EXPECT_EQ('z', ObjectBytes(name).back());
        EXPECT_EQ(name, object.m_name);
        CleanUp(object, size, name);
    }
}

TEST_F(ShmCreateObject, Success_MakesTheCallsInOrderWithTheirArguments) {
    const auto name = SharedName("calls");
    OpenSharedObject object;
    object.m_name = name;
    const ShmFaults faults;
    ASSERT_EQ(0, object.ShmCreateObject(55));
    EXPECT_THAT(faults.Order(),
                ElementsAre("shm_open(" + name + ", 0x442, 0666)", "ftruncate(fd, 55)",
                            "posix_fallocate(fd, 0, 55)", "mmap(55, 0x3, 0x2001, fd, 0)", "close(fd)"));
    CleanUp(object, 55, name);
}

TEST_F(ShmCreateObject, Success_DescriptorIsClosedAndItsNumberStaysShown) {
    const auto name = SharedName("number");
    const int next = AnyFile().Number();
    OpenSharedObject object;
    object.m_name = name;
    ASSERT_EQ(0, object.ShmCreateObject(55));
    EXPECT_EQ(next, object.m_fd);
    EXPECT_FALSE(IsOpen(next));
    CleanUp(object, 55, name);
}

TEST_F(ShmCreateObject, Again_Minus22Silently) {
    const auto name = SharedName("again");
    OpenSharedObject object;
    object.m_name = name;
    ASSERT_EQ(0, object.ShmCreateObject(55));
    char* const data = object.m_pData;
    const LogCapture log;
    const ShmFaults faults;
    EXPECT_EQ(-22, object.ShmCreateObject(55));
    EXPECT_EQ(-22, object.ShmCreateObject(0));
    EXPECT_THAT(log.Lines(), IsEmpty());
    EXPECT_THAT(faults.Order(), IsEmpty());
    EXPECT_EQ(data, object.m_pData);
    EXPECT_EQ(name, object.m_name);
    CleanUp(object, 55, name);
}

TEST_F(ShmCreateObject, ObjectOfThatNameExists_IsReusedWithTheNewSize) {
    const auto name = SharedName("reused");
    MakeObject(name, "abcdefgh");
    struct stat before {};
    stat(("/dev/shm" + name).c_str(), &before);
    OpenSharedObject object;
    object.m_name = name;
    ASSERT_EQ(0, object.ShmCreateObject(3));
    struct stat after {};
    stat(("/dev/shm" + name).c_str(), &after);
    EXPECT_EQ(before.st_ino, after.st_ino);
    EXPECT_EQ("abc", ObjectBytes(name));
    CleanUp(object, 3, name);
}

TEST_F(ShmCreateObject, Mode_IsReadAndWriteForAllLessTheMask) {
    const auto name = SharedName("mode");
    OpenSharedObject object;
    object.m_name = name;
    const mode_t mask = umask(0);
    ASSERT_EQ(0, object.ShmCreateObject(3));
    umask(mask);
    struct stat status {};
    stat(("/dev/shm" + name).c_str(), &status);
    EXPECT_EQ(0666U, status.st_mode & 0777U);
    CleanUp(object, 3, name);
}

TEST_F(ShmCreateObject, OpenFails_LogsTheLineOfTheError) {
    const struct {
        int error;
        const char* line;
    } rows[] = {
        {EACCES, "I ShmCreateObject > EACCES : Require ROOT permission."},
        {ENOSPC, "I ShmCreateObject > ENOSPC : Resource is empty."},
        {EINVAL,
         "I ShmCreateObject > EINVAL : The shm_open() operation is not supported for the given name."},
        {ENOENT,
         "I ShmCreateObject > ENOENT : O_CREAT is not set and the named shared memory object does not "
         "exist."},
        {EMFILE, "I ShmCreateObject > other cause : -1"},
        {ENAMETOOLONG, "I ShmCreateObject > other cause : -1"},
        {ENOMEM, "I ShmCreateObject > other cause : -1"},
    };
    for (const auto& row : rows) {
        OpenSharedObject object;
        object.m_name = SharedName("refused");
        const LogCapture log;
        ShmFaults faults;
        faults.Fail("shm_open", row.error);
        EXPECT_EQ(-22, object.ShmCreateObject(55));
        EXPECT_THAT(log.Lines(), ElementsAre("I ShmCreateObject > Shared memory get fail", row.line));
        EXPECT_EQ("", object.m_name);
        EXPECT_LT(object.m_fd, 0);
        EXPECT_EQ(nullptr, object.m_pData);
        EXPECT_THAT(faults.Order(), ElementsAre("shm_open(" + SharedName("refused") + ", 0x442, 0666)"));
    }
}

TEST_F(ShmCreateObject, NameThatTheSystemRefuses_LogsItsAnswer) {
    OpenSharedObject object;
    object.m_name = SharedName("with/slash");
    const LogCapture log;
    EXPECT_EQ(-22, object.ShmCreateObject(55));
    EXPECT_THAT(log.Lines(),
                ElementsAre("I ShmCreateObject > Shared memory get fail",
                            "I ShmCreateObject > EINVAL : The shm_open() operation is not supported for the "
                            "given name."));
}

// What is left, and in what order it was given up, after a failure behind shm_open().
void ExpectGivenUp(const OpenSharedObject& object, const std::string& name, const ShmFaults& faults,
                   int number) {
    EXPECT_EQ("", object.m_name);
    EXPECT_EQ(nullptr, object.m_pData);
    EXPECT_FALSE(ObjectExists(name));
    EXPECT_FALSE(IsOpen(number));
    EXPECT_EQ(1, faults.Calls("close"));
    EXPECT_EQ(1, faults.Calls("shm_unlink"));
    EXPECT_THAT(faults.Order(), IsSupersetOf({std::string("close(fd)"), "shm_unlink(" + name + ")"}));
}

TEST_F(ShmCreateObject, NoSizeNoSpaceOrNoMapping_LogsAndLeavesNothing) {
    const struct {
        const char* call;
        int error;
        const char* line;
    } rows[] = {
        {"ftruncate", EINVAL, "I ShmCreateObject > fturncate error ."},
        {"ftruncate", EFBIG, "I ShmCreateObject > fturncate error ."},
        {"posix_fallocate", ENOSPC, "I ShmCreateObject > fturncate error ."},
        {"posix_fallocate", ENOMEM, "I ShmCreateObject > fturncate error ."},
        {"mmap", EAGAIN, "I ShmCreateObject > Get ptr fail\n"},
        {"mmap", ENOMEM, "I ShmCreateObject > Get ptr fail\n"},
        {"mmap", EPERM, "I ShmCreateObject > Get ptr fail\n"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.call);
        const auto name = SharedName("given-up");
        const int number = AnyFile().Number();
        OpenSharedObject object;
        object.m_name = name;
        const LogCapture log;
        ShmFaults faults;
        faults.Fail(row.call, row.error);
        EXPECT_EQ(-22, object.ShmCreateObject(55));
        EXPECT_THAT(log.Lines(), ElementsAre(row.line));
        ExpectGivenUp(object, name, faults, number);
        const auto calls = faults.Order();
        EXPECT_THAT(std::vector<std::string>(calls.end() - 2, calls.end()),
                    ElementsAre("close(fd)", "shm_unlink(" + name + ")"));
    }
}

TEST_F(ShmCreateObject, ReservingAnswersAnythingButNoSpace_GoesOn) {
    for (const int error : {EOPNOTSUPP, EINVAL, EBADF, ENODEV, EFBIG, EIO, EINTR, ESPIPE}) {
        SCOPED_TRACE(error);
        const auto name = SharedName("unreserved");
        OpenSharedObject object;
        object.m_name = name;
        const LogCapture log;
        ShmFaults faults;
        faults.Fail("posix_fallocate", error);
        ASSERT_EQ(0, object.ShmCreateObject(55));
        EXPECT_THAT(log.Lines(), IsEmpty());
        EXPECT_EQ(55, SizeOf(name));
        CleanUp(object, 55, name);
    }
}

TEST_F(ShmCreateObject, AfterAFailure_WorksWithANewName) {
    const auto name = SharedName("second-try");
    OpenSharedObject object;
    object.m_name = name;
    ShmFaults faults;
    faults.Fail("mmap", EAGAIN);
    ASSERT_EQ(-22, object.ShmCreateObject(55));
    object.m_name = name;
    EXPECT_EQ(0, object.ShmCreateObject(55));
    EXPECT_EQ(55, SizeOf(name));
    CleanUp(object, 55, name);
}

TEST_F(ShmCreateObject, ClosedNumber_IsNeverClosedAgain) {
    const auto name = SharedName("closed");
    for (const bool failing : {false, true}) {
        auto object = std::make_unique<OpenSharedObject>();
        object->m_name = name;
        int number = -1;
        {
            ShmFaults faults;
            if (failing) {
                faults.Fail("mmap", EAGAIN);
            }
            object->ShmCreateObject(55);
            number = object->m_fd;
        }
        const AnyFile other;
        ASSERT_EQ(number, other.Number());
        CleanUp(*object, 55, name);
        object->m_name = name;
        EXPECT_EQ(0, object->ShmRemoveObject(55));
        EXPECT_TRUE(IsOpen(number));
        object.reset();
        EXPECT_TRUE(IsOpen(number));
    }
}

// ---- Getting ------------------------------------------------------------------------------------------

TEST_F(ShmGetObject, EmptyName_NullWithTheParameterLine) {
    OpenSharedObject object;
    const LogCapture log;
    const ShmFaults faults;
    EXPECT_EQ(nullptr, object.ShmGetObject(10));
    EXPECT_THAT(log.Lines(),
                ElementsAre("I ShmGetObject > Parameter is not proper value - shmSize : 10, path is "
                            "NULL : "));
    EXPECT_THAT(faults.Order(), IsEmpty());
}

TEST_F(ShmGetObject, EmptyNameBesideAMapping_StillNull) {
    OpenSharedObject object;
    char anything = 'x';
    object.m_pData = &anything;
    EXPECT_EQ(nullptr, object.ShmGetObject(10));
}

TEST_F(ShmGetObject, MappedAlready_GivesTheMappingWithoutACall) {
    OpenSharedObject object;
    object.m_name = SharedName("mapped");
    char anything = 'x';
    object.m_pData = &anything;
    const LogCapture log;
    const ShmFaults faults;
    EXPECT_EQ(&anything, object.ShmGetObject(10));
    EXPECT_EQ(&anything, object.ShmGetObject(0));
    EXPECT_THAT(log.Lines(), IsEmpty());
    EXPECT_THAT(faults.Order(), IsEmpty());
}

TEST_F(ShmGetObject, NoSuchObject_LogsTheErrorNumberAndReturnsNull) {
    const auto name = SharedName("missing");
    OpenSharedObject object;
    object.m_name = name;
    const LogCapture log;
    const ShmFaults faults;
    EXPECT_EQ(nullptr, object.ShmGetObject(10));
    EXPECT_THAT(log.Lines(), ElementsAre("I ShmGetObject > Error number : 2"));
    EXPECT_THAT(faults.Order(), ElementsAre("shm_open(" + name + ", 0x2, 00)", "shm_unlink(" + name + ")"));
    EXPECT_EQ(nullptr, object.m_pData);
    EXPECT_LT(object.m_fd, 0);
}

TEST_F(ShmGetObject, OpenFails_LogsTheErrorNumberAndRemovesTheName) {
    for (const int error : {EACCES, EMFILE, ENFILE}) {
        const auto name = SharedName("locked-out");
        MakeObject(name, "abcd");
        OpenSharedObject object;
        object.m_name = name;
        const LogCapture log;
        ShmFaults faults;
        faults.Fail("shm_open", error);
        EXPECT_EQ(nullptr, object.ShmGetObject(4));
        EXPECT_THAT(log.Lines(), ElementsAre("I ShmGetObject > Error number : " + std::to_string(error)));
        EXPECT_FALSE(ObjectExists(name));
    }
}

TEST_F(ShmGetObject, NoSuchObjectComesBeforeTheSize) {
    OpenSharedObject object;
    object.m_name = SharedName("missing");
    const LogCapture log;
    EXPECT_EQ(nullptr, object.ShmGetObject(0));
    EXPECT_THAT(log.Lines(), ElementsAre("I ShmGetObject > Error number : 2"));
}

TEST_F(ShmGetObject, SizeOutsideTheRange_DestroysTheObject) {
    for (const int size : WRONG_SIZES) {
        const auto name = SharedName("size");
        MakeObject(name, "abcd");
        const int number = AnyFile().Number();
        OpenSharedObject object;
        object.m_name = name;
        const LogCapture log;
        const ShmFaults faults;
        EXPECT_EQ(nullptr, object.ShmGetObject(size));
        EXPECT_THAT(log.Lines(), ElementsAre("I ShmGetObject > Out of size : " + std::to_string(size)));
        EXPECT_EQ(-1, object.m_fd);
        EXPECT_EQ(0, faults.Calls("mmap"));
        ExpectGivenUp(object, name, faults, number);
    }
}

TEST_F(ShmGetObject, MappingFails_LogsTheErrorAndDestroysTheObject) {
    const auto name = SharedName("unmapped");
    MakeObject(name, "abcd");
    const int number = AnyFile().Number();
    OpenSharedObject object;
    object.m_name = name;
    const LogCapture log;
    ShmFaults faults;
    faults.Fail("mmap", ENOMEM);
    EXPECT_EQ(nullptr, object.ShmGetObject(4));
    EXPECT_THAT(log.Lines(), ElementsAre("I ShmGetObject > mmap has failed : 12"));
    EXPECT_EQ(-1, object.m_fd);
    ExpectGivenUp(object, name, faults, number);
}

TEST_F(ShmGetObject, LeastAndGreatestSize_AreMapped) {
    for (const int size : {1, GREATEST}) {
        const auto name = SharedName("range");
        MakeObject(name, std::string(static_cast<size_t>(size), 'x'));
        OpenSharedObject object;
        object.m_name = name;
        const LogCapture log;
        const char* const data = object.ShmGetObject(size);
        ASSERT_NE(nullptr, data);
        EXPECT_EQ(data, object.m_pData);
        EXPECT_EQ('x', data[size - 1]);
        EXPECT_THAT(log.Lines(), IsEmpty());
        EXPECT_EQ(0, object.ShmRemoveObject(size));
    }
}

TEST_F(ShmGetObject, Success_LocksBeforeItMapsAndLeavesTheDescriptorOpen) {
    const auto name = SharedName("calls");
    MakeObject(name, "abcd");
    OpenSharedObject object;
    object.m_name = name;
    const ShmFaults faults;
    ASSERT_NE(nullptr, object.ShmGetObject(4));
    EXPECT_THAT(faults.Order(), ElementsAre("shm_open(" + name + ", 0x2, 00)", "flock(fd, 0x2)", "fstat(fd)",
                                            "mmap(4, 0x1, 0x1, fd, 0)"));
    EXPECT_TRUE(IsOpen(object.m_fd));
    EXPECT_TRUE(IsLocked(name));
    EXPECT_EQ(name, object.m_name);
    EXPECT_EQ(0, object.ShmRemoveObject(4));
}

TEST_F(ShmGetObject, Mapping_CannotBeWritten) {
    const auto name = SharedName("read-only");
    MakeObject(name, "abcd");
    support::OtherProcess writer([&name](int) {
        for (const int sign : {SIGSEGV, SIGABRT}) {
            signal(sign, [](int number) { _exit(number == SIGSEGV ? 77 : 78); });
        }
        OpenSharedObject object;
        object.m_name = name;
        char* const data = object.ShmGetObject(4);
        *static_cast<volatile char*>(data) = 'x';
        return 0;
    });
    EXPECT_EQ("exit 77", writer.Wait());
    EXPECT_EQ("abcd", ObjectBytes(name));
    shm_unlink(name.c_str());
}

TEST_F(ShmGetObject, CannotBeLockedOrAsked_GoesOn) {
    const struct {
        const char* call;
        int error;
    } rows[] = {{"flock", ENOLCK}, {"flock", EOPNOTSUPP}, {"flock", EINTR}, {"flock", EBADF}, {"fstat", EIO}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.call);
        const auto name = SharedName("unlocked");
        MakeObject(name, "abcd");
        OpenSharedObject object;
        object.m_name = name;
        const LogCapture log;
        ShmFaults faults;
        faults.Fail(row.call, row.error);
        const char* const data = object.ShmGetObject(4);
        ASSERT_NE(nullptr, data);
        EXPECT_EQ("abcd", std::string(data, 4));
        EXPECT_THAT(log.Lines(), IsEmpty());
        EXPECT_EQ(0, object.ShmRemoveObject(4));
        EXPECT_FALSE(ObjectExists(name));
    }
}

TEST_F(ShmGetObject, LockingIsInterrupted_LocksAgain) {
    const auto name = SharedName("interrupted");
    MakeObject(name, "abcd");
    OpenSharedObject object;
    object.m_name = name;
    ShmFaults faults;
    faults.Fail("flock", EINTR, 3);
    ASSERT_NE(nullptr, object.ShmGetObject(4));
    EXPECT_EQ(4, faults.Calls("flock"));
    EXPECT_TRUE(IsLocked(name));
    EXPECT_EQ(0, object.ShmRemoveObject(4));
}

TEST_F(ShmGetObject, RemovedBeforeTheLockIsHeld_FailsAsForAMissingObject) {
    const auto name = SharedName("overtaken");
    MakeObject(name, "abcd");
    const int number = AnyFile().Number();
    OpenSharedObject object;
    object.m_name = name;
    const LogCapture log;
    ShmFaults faults;
    faults.Before("flock", [&name] { shm_unlink(name.c_str()); });
    EXPECT_EQ(nullptr, object.ShmGetObject(4));
    EXPECT_THAT(log.Lines(), ElementsAre("I ShmGetObject > Error number : 2"));
    EXPECT_EQ(0, faults.Calls("mmap"));
    EXPECT_FALSE(IsOpen(number));
    EXPECT_EQ(nullptr, object.m_pData);
}

TEST_F(ShmGetObject, NameBelongsToANewerObject_LeavesThatOne) {
    const auto name = SharedName("newer");
    MakeObject(name, "abcd");
    OpenSharedObject object;
    object.m_name = name;
    ShmFaults faults;
    faults.Before("flock", [&name] {
        shm_unlink(name.c_str());
        MakeObject(name, "efgh");
    });
    EXPECT_EQ(nullptr, object.ShmGetObject(4));
    EXPECT_EQ("efgh", ObjectBytes(name));
    shm_unlink(name.c_str());
}

TEST_F(ShmGetObject, AfterAFailure_ClosedNumberIsNeverClosedAgain) {
    const auto name = SharedName("closed");
    MakeObject(name, "abcd");
    auto object = std::make_unique<OpenSharedObject>();
    object->m_name = name;
    EXPECT_EQ(nullptr, object->ShmGetObject(0));
    const AnyFile other;
    object->m_name = name;
    EXPECT_EQ(nullptr, object->ShmGetObject(0));
    EXPECT_EQ(-1, object->ShmRemoveObject(4));
    object.reset();
    EXPECT_TRUE(IsOpen(other.Number()));
}

// ---- Removing -----------------------------------------------------------------------------------------

TEST_F(ShmRemoveObject, SizeOutsideTheRange_Minus22WithTheParameterLine) {
    for (const int size : WRONG_SIZES) {
        const auto name = SharedName("size");
        MakeObject(name, "abcd");
        OpenSharedObject object;
        object.m_name = name;
        ASSERT_NE(nullptr, object.ShmGetObject(4));
        {
            const LogCapture log;
            const ShmFaults faults;
            EXPECT_EQ(-22, object.ShmRemoveObject(size));
            EXPECT_THAT(log.Lines(),
                        ElementsAre("I ShmRemoveObject > Parameter is not proper value - shmSize : " +
                                    std::to_string(size) + ", path is NULL : " + name));
            EXPECT_THAT(faults.Order(), IsEmpty());
        }
        EXPECT_TRUE(ObjectExists(name));
        EXPECT_EQ(0, object.ShmRemoveObject(4));
    }
}

TEST_F(ShmRemoveObject, EmptyName_Minus22WithTheParameterLine) {
    OpenSharedObject object;
    const LogCapture log;
    const ShmFaults faults;
    EXPECT_EQ(-22, object.ShmRemoveObject(2098175));
    EXPECT_THAT(log.Lines(),
                ElementsAre("I ShmRemoveObject > Parameter is not proper value - shmSize : 2098175, "
                            "path is NULL : "));
    EXPECT_THAT(faults.Order(), IsEmpty());
}

TEST_F(ShmRemoveObject, NoDescriptor_Minus1AndTheObjectStays) {
    const auto name = SharedName("no-descriptor");
    MakeObject(name, "abcd");
    OpenSharedObject object;
    object.m_name = name;
    object.m_fd = -1;
    const LogCapture log;
    const ShmFaults faults;
    EXPECT_EQ(-1, object.ShmRemoveObject(4));
    EXPECT_THAT(log.Lines(), ElementsAre("I ShmRemoveObject > Shared memory get fail"));
    EXPECT_THAT(faults.Order(), IsEmpty());
    EXPECT_EQ(name, object.m_name);
    EXPECT_TRUE(ObjectExists(name));
    shm_unlink(name.c_str());
}

TEST_F(ShmRemoveObject, UnmappingFails_Minus1AndTheObjectStays) {
    const auto name = SharedName("mapped");
    MakeObject(name, "abcd");
    OpenSharedObject object;
    object.m_name = name;
    char* const data = object.ShmGetObject(4);
    ASSERT_NE(nullptr, data);
    const LogCapture log;
    ShmFaults faults;
    faults.Fail("munmap", EINVAL);
    EXPECT_EQ(-1, object.ShmRemoveObject(4));
    EXPECT_THAT(log.Lines(), ElementsAre("I ShmRemoveObject > munmap fail"));
    EXPECT_EQ(0, faults.Calls("shm_unlink"));
    EXPECT_EQ(data, object.m_pData);
    EXPECT_TRUE(IsOpen(object.m_fd));
    EXPECT_EQ(name, object.m_name);
    EXPECT_TRUE(ObjectExists(name));
    EXPECT_EQ(0, object.ShmRemoveObject(4));
}

TEST_F(ShmRemoveObject, Success_UnmapsThenRemovesUnderTheLockThenCloses) {
    const auto name = SharedName("removed");
    MakeObject(name, "abcd");
    OpenSharedObject object;
    object.m_name = name;
    ShmFaults faults;
    ASSERT_NE(nullptr, object.ShmGetObject(4));
    faults.Clear();
    const int number = object.m_fd;
    bool lockedAtRemoval = false;
    faults.Before("shm_unlink", [&] { lockedAtRemoval = IsOpen(number) && IsLocked(name); });
    const LogCapture log;
    EXPECT_EQ(0, object.ShmRemoveObject(4));
    EXPECT_THAT(faults.Order(), ElementsAre("munmap(data, 4)", "shm_unlink(" + name + ")", "close(fd)"));
    EXPECT_TRUE(lockedAtRemoval);
    EXPECT_THAT(log.Lines(), IsEmpty());
    EXPECT_EQ(-1, object.m_fd);
    EXPECT_FALSE(IsOpen(number));
    EXPECT_EQ("", object.m_name);
    EXPECT_NE(nullptr, object.m_pData);
    EXPECT_FALSE(ObjectExists(name));
}

TEST_F(ShmRemoveObject, Twice_TheSecondFindsAnEmptyName) {
    const auto name = SharedName("twice");
    MakeObject(name, "abcd");
    OpenSharedObject object;
    object.m_name = name;
    ASSERT_NE(nullptr, object.ShmGetObject(4));
    ASSERT_EQ(0, object.ShmRemoveObject(4));
    const LogCapture log;
    EXPECT_EQ(-22, object.ShmRemoveObject(4));
    EXPECT_THAT(log.Lines(),
                ElementsAre("I ShmRemoveObject > Parameter is not proper value - shmSize : 4, path is "
                            "NULL : "));
}

TEST_F(ShmRemoveObject, NeverMapped_RemovesTheNameWithoutUnmapping) {
    const auto name = SharedName("never-mapped");
    MakeObject(name, "abcd");
    OpenSharedObject object;
    object.m_name = name;
    const bool inputOpen = IsOpen(0);
    const LogCapture log;
    const ShmFaults faults;
    EXPECT_EQ(0, object.ShmRemoveObject(4));
    EXPECT_THAT(log.Lines(), IsEmpty());
    EXPECT_EQ(0, faults.Calls("munmap"));
    EXPECT_FALSE(ObjectExists(name));
    EXPECT_EQ(-1, object.m_fd);
    EXPECT_EQ("", object.m_name);
    EXPECT_EQ(inputOpen, IsOpen(0));
}

TEST_F(ShmRemoveObject, NameIsGoneAlready_StillReturns0) {
    const auto name = SharedName("gone");
    MakeObject(name, "abcd");
    OpenSharedObject object;
    object.m_name = name;
    ASSERT_NE(nullptr, object.ShmGetObject(4));
    shm_unlink(name.c_str());
    const LogCapture log;
    EXPECT_EQ(0, object.ShmRemoveObject(4));
    EXPECT_THAT(log.Lines(), IsEmpty());
}

// ---- Detaching ----------------------------------------------------------------------------------------

TEST_F(DetachData, Mapped_UnmapsTheSizeAndLeavesTheObject) {
    const auto name = SharedName("detached");
    OpenSharedObject object;
    object.m_name = name;
    object.m_size = 5000;
    ASSERT_EQ(0, object.ShmCreateObject(5000));
    std::copy_n("abcd", 4, object.m_pData);
    const LogCapture log;
    const ShmFaults faults;
    EXPECT_EQ(0, object.DetachData());
    EXPECT_THAT(log.Lines(), IsEmpty());
    EXPECT_THAT(faults.Order(), ElementsAre("munmap(data?, 5000)"));
    EXPECT_EQ(nullptr, object.m_pData);
    EXPECT_EQ(name, object.m_name);
    EXPECT_EQ("abcd", ObjectBytes(name).substr(0, 4));
    shm_unlink(name.c_str());
}

TEST_F(DetachData, UnmappingFails_Minus1WithItsLine) {
    const auto name = SharedName("stuck");
    OpenSharedObject object;
    object.m_name = name;
    object.m_size = 10;
    ASSERT_EQ(0, object.ShmCreateObject(10));
    char* const data = object.m_pData;
    const LogCapture log;
    ShmFaults faults;
    faults.Fail("munmap", EINVAL);
    EXPECT_EQ(-1, object.DetachData());
    EXPECT_THAT(log.Lines(), ElementsAre("I DetachData > Unmap fail\n"));
    EXPECT_EQ(data, object.m_pData);
    EXPECT_TRUE(ObjectExists(name));
    CleanUp(object, 10, name);
}

TEST_F(DetachData, NoMapping_Minus1WithItsLine) {
    OpenSharedObject object;
    const LogCapture log;
    EXPECT_EQ(-1, object.DetachData());
    EXPECT_THAT(log.Lines(), ElementsAre("I DetachData > Unmap fail\n"));
}

// ---- Request ids --------------------------------------------------------------------------------------

TEST(ProviderNewRequestID, LibraryLoaded_CounterIsZero) { EXPECT_EQ(0, g_idWhenLoaded); }

TEST(ProviderNewRequestID, FirstThree_Are1And2And3) {
    const support::RequestIdsFrom fresh(0);
    const LogCapture log;
    EXPECT_EQ(0, CSharedQueryObject::GetRequestID());
    EXPECT_EQ("1", CSharedQueryObject::ProviderNewRequestID());
    EXPECT_EQ("2", CSharedQueryObject::ProviderNewRequestID());
    EXPECT_EQ("3", CSharedQueryObject::ProviderNewRequestID());
    EXPECT_EQ(3, CSharedQueryObject::GetRequestID());
    EXPECT_EQ(3, ISharedQueryObject::GetRequestID());
    EXPECT_EQ(3, CSharedQueryObject::m_requestId);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(ProviderNewRequestID, PastTheGreatestNumber_WrapsRound) {
    const support::RequestIdsFrom last(INT_MAX - 1);
    EXPECT_EQ("2147483647", CSharedQueryObject::ProviderNewRequestID());
    EXPECT_EQ("-2147483648", CSharedQueryObject::ProviderNewRequestID());
    EXPECT_EQ("-2147483647", CSharedQueryObject::ProviderNewRequestID());
    EXPECT_EQ(-2147483647, CSharedQueryObject::GetRequestID());
}

TEST(ProviderNewRequestID, GroupingLocale_IsNotFollowed) {
    struct Grouping : std::numpunct<char> {
        char do_thousands_sep() const override { return '.'; }
        std::string do_grouping() const override { return "\3"; }
    };
    const support::RequestIdsFrom before(1234566);
    const std::locale old = std::locale::global(std::locale(std::locale::classic(), new Grouping));
    const std::string id = CSharedQueryObject::ProviderNewRequestID();
    std::locale::global(old);
    EXPECT_EQ("1234567", id);
}

TEST(ProviderNewRequestID, EightThreads_NoIdIsIssuedTwice) {
    constexpr int EACH = 20000;
    const support::RequestIdsFrom fresh(0);
    std::vector<std::vector<std::string>> issued(8);
    std::vector<std::thread> threads;
    for (auto& own : issued) {
        threads.emplace_back([&own] {
            for (int i = 0; i < EACH; ++i) {
                own.push_back(CSharedQueryObject::ProviderNewRequestID());
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    std::set<int> all;
    for (const auto& own : issued) {
        for (const auto& id : own) {
            all.insert(std::stoi(id));
        }
    }
    EXPECT_EQ(8U * EACH, all.size());
    EXPECT_EQ(1, *all.begin());
    EXPECT_EQ(8 * EACH, *all.rbegin());
    EXPECT_EQ(8 * EACH, CSharedQueryObject::GetRequestID());
}

}  // namespace
