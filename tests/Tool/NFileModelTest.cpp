// Random operations on a file over a device that is slow, short and failing at random, beside a plain array.
#include <Ravelo/NFile.h>

#include <random>

#include "Support/Load.h"
#include "Tool/Files.h"

namespace Veltro::Ravelo {
namespace {

using namespace TestSupport;

/// An owner that waits as an application would: for the message that was promised, and for no other.
class CPatientUser {
public:
    CPatientUser(SDisk& disk, unsigned buffers)
        : m_file(CNFile::Open(m_owner.id(), "disk", "r+", new CMemoryDevice(disk))) {
        EXPECT_NE(nullptr, m_file);
        EXPECT_EQ(0, m_file->SetBufferSize(BUFFER, buffers));
    }
    ~CPatientUser() { closeFile(m_file); }
    CPatientUser(const CPatientUser&) = delete;
    CPatientUser& operator=(const CPatientUser&) = delete;

    /// Writes all of a text at the position of the array, too.
    void write(const std::string& text) {
        std::size_t done = 0;
        while (done < text.size() && !::testing::Test::HasFailure()) {
            const SSeen before = seen(NOTIFY_FILE_WRITABLE);
            const int count = m_file->Write(text.data() + done, static_cast<unsigned>(text.size() - done));
            ASSERT_GE(count, 0);
            done += static_cast<std::size_t>(count);
            if (done < text.size()) await(NOTIFY_FILE_WRITABLE, before);
        }
        const std::size_t end = m_position + text.size();
        if (m_model.size() < end) m_model.resize(end);
        m_model.replace(m_position, text.size(), text);
        m_position = end;
    }
    /// Reads a number of bytes, or to the end, and compares.
    void read(std::size_t length) {
        std::string text(length, '\0');
        std::size_t done = 0;
        bool eof = false;
        while (done < length && !eof && !::testing::Test::HasFailure()) {
            const SSeen before = seen(NOTIFY_FILE_READABLE);
            const int count = m_file->Read(text.data() + done, static_cast<unsigned>(length - done), eof);
            ASSERT_GE(count, 0);
            done += static_cast<std::size_t>(count);
            if (done < length && !eof) await(NOTIFY_FILE_READABLE, before);
        }
        text.resize(done);
        const std::string expected = m_position < m_model.size() ? m_model.substr(m_position, length) : "";
        ASSERT_TRUE(text == expected) << "at " << m_position << ": " << done << " of " << expected.size()
                                      << " bytes, first difference at " << differenceOf(text, expected);
        if (eof) {
            ASSERT_GE(m_position + done, m_model.size());
        }
        m_position += done;
    }
    void seek(std::size_t place) {
        ASSERT_EQ(0, m_file->Seek(static_cast<std::int64_t>(place), 0));
        m_position = place;
    }
    void skip(std::int64_t by) {
        if (by < -static_cast<std::int64_t>(m_position)) return;
        ASSERT_EQ(0, m_file->Seek(by, 1));
        m_position += static_cast<std::size_t>(by);
    }
    void resize(unsigned buffers) {
        // Refused while the device fails: then the file stays as it is.
        m_file->SetBufferSize(BUFFER, buffers);
    }
    const std::string& model() const { return m_model; }

private:
    struct SSeen {
        int ready;
        int error;
    };
    SSeen seen(unsigned type) const { return {m_owner.count(type), m_owner.count(NOTIFY_FILE_ERROR)}; }
    void await(unsigned type, const SSeen& before) {
        ASSERT_TRUE(waitUntilFast([&] {
            const SSeen now = seen(type);
            return now.ready > before.ready || now.error > before.error;
        })) << "no message "
            << type;
    }
    static bool waitUntilFast(const std::function<bool()>& condition) {
        for (int i = 0; i < 2'000; ++i) {
            if (condition()) return true;
            Plinth::yieldThread();
        }
        return waitUntil(condition);
    }
    static std::size_t differenceOf(const std::string& one, const std::string& other) {
        return static_cast<std::size_t>(
            std::mismatch(one.begin(),
                          one.begin() + static_cast<std::ptrdiff_t>(std::min(one.size(), other.size())),
                          other.begin())
                .first -
            one.begin());
    }

    CFileOwner m_owner;
    CNFile* m_file;
    std::string m_model;
    std::size_t m_position = 0;
};

struct SModelCase {
    const char* name;
    unsigned buffers;
    bool is_short;
    bool is_slow;
    int failures_of_100;
    std::size_t largest;    // bytes of one operation
    std::size_t file_size;  // places to go to
};

void PrintTo(const SModelCase& model, std::ostream* out) {
    *out << model.name;
}

class NFileModel : public ::testing::TestWithParam<SModelCase> {};

/// What a slow, short and failing device does, drawn anew for each call.
struct SMoods {
    Plinth::CMutex mutex;
    std::mt19937 random PLINTH_GUARDED_BY(mutex);
    const SModelCase& model;
    SDisk& disk;
    std::atomic<bool> calm{false};

    SMoods(unsigned seed, const SModelCase& of_model, SDisk& of_disk)
        : random(seed), model(of_model), disk(of_disk) {}
    unsigned draw(unsigned below) {
        Plinth::CLockGuard guard(mutex);
        return static_cast<unsigned>(random()) % below;
    }
    void change(std::atomic<int>& failing) {
        if (calm) return;
        if (model.is_short) disk.longest = draw(3) == 0 ? 1 + draw(BUFFER) : ~0U;
        if (model.is_slow && draw(4) == 0) Plinth::sleepMilliSecond(draw(2));
        if (static_cast<int>(draw(100)) < model.failures_of_100) failing = 1;
    }
};

TEST_P(NFileModel, BytesEqualThoseOfAPlainArray) {
    const SModelCase& model = GetParam();
    const std::size_t operations = std::max<std::size_t>(scaledDown(1'500), 60);
    for (unsigned seed = 1; seed <= 4 && !HasFailure(); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        const CFilePool pool;
        SDisk disk;
        SMoods moods(seed, model, disk);
        disk.on_write = [&] { moods.change(disk.failing_writes); };
        disk.on_read = [&] { moods.change(disk.failing_reads); };
        std::string expected;
        std::mt19937 random(seed);
        const auto draw = [&random](std::size_t below) { return random() % below; };
        {
            CPatientUser user(disk, model.buffers);
            for (std::size_t i = 0; i < operations && !HasFailure(); ++i) {
                const std::size_t length = 1 + (draw(4) == 0 ? draw(model.largest) : draw(3'000));
                switch (draw(12)) {
                    case 0:
                    case 1:
                        user.seek(draw(model.file_size));
                        break;
                    case 2:
                        user.skip(static_cast<std::int64_t>(draw(2 * BUFFER)) - BUFFER);
                        break;
                    case 3:
                        user.seek(draw(model.file_size / BUFFER) * BUFFER);
                        break;
                    case 4:
                        if (draw(10) == 0) user.resize(1 + static_cast<unsigned>(draw(6)));
                        break;
                    case 5:
                    case 6:
                    case 7:
                    case 8:
                        user.read(length);
                        break;
                    default:
                        user.write(pattern(length, static_cast<unsigned>(i)));
                        break;
                }
            }
            expected = user.model();
            moods.calm = true;
        }
        const std::string content = disk.content();
        EXPECT_TRUE(expected == content) << expected.size() << " and " << content.size() << " bytes";
        EXPECT_EQ(0, disk.overlaps.load());
        EXPECT_EQ(1, disk.closes.load());
    }
}

INSTANTIATE_TEST_SUITE_P(
    Devices, NFileModel,
    ::testing::Values(SModelCase{"Fast", 4, false, false, 0, 6 * BUFFER, 12 * BUFFER},
                      SModelCase{"Short", 4, true, false, 0, 3 * BUFFER, 6 * BUFFER},
                      SModelCase{"Slow", 4, false, true, 0, 2 * BUFFER, 4 * BUFFER},
                      SModelCase{"Failing", 4, false, false, 20, 3 * BUFFER, 6 * BUFFER},
                      SModelCase{"AllOfIt", 4, true, true, 10, 2 * BUFFER, 4 * BUFFER},
                      SModelCase{"OneBuffer", 1, true, false, 10, 3 * BUFFER, 4 * BUFFER},
                      SModelCase{"TwoBuffers", 2, false, true, 10, 3 * BUFFER, 4 * BUFFER},
                      SModelCase{"ManyBuffers", 40, true, false, 5, 6 * BUFFER, 30 * BUFFER}),
    [](const auto& model) { return std::string(model.param.name); });

}  // namespace
}  // namespace Veltro::Ravelo
