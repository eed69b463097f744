// The interface's binary contract: the slot of each virtual operation, through which a
// vendor's library is called.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

#include <halden/sensor/Lumora.h>

namespace {

using namespace halden::sensor;

// The 1-based vtable slot of a virtual member function, read from its pointer-to-member
// (Itanium C++ ABI: a pointer word and a this-adjustment word). A virtual one is marked by a
// low bit: on Arm in the adjustment word, which is kept doubled, since a code address may be
// odd there (Thumb), and the pointer word holds the slot's byte offset; elsewhere the pointer
// word holds 1 + that offset.
template <typename MemberFunction>
std::uintptr_t slot(MemberFunction function) {
    static_assert(sizeof(function) == 2 * sizeof(std::uintptr_t), "Itanium pointer to member function");
    std::uintptr_t words[2];
    std::memcpy(words, &function, sizeof words);
#if defined(__aarch64__) || defined(__arm__)
    EXPECT_EQ(words[1] % 2, 1U) << "not a virtual function";
    const std::uintptr_t offset = words[0];
#else
    const std::uintptr_t offset = words[0] - 1;
#endif
    EXPECT_EQ(offset % sizeof(void*), 0U) << "not a virtual function";
    return offset / sizeof(void*) + 1;
}

TEST(Interface, VirtualOperationsKeepTheirSlots) {
    EXPECT_EQ(slot(&LumoraSource::name), 1U);
    EXPECT_EQ(slot(&LumoraSource::serialNumber), 2U);
    EXPECT_EQ(slot(&LumoraSource::uri), 3U);
    EXPECT_EQ(slot(&LumoraSourceList::size), 2U);
    EXPECT_EQ(slot(&LumoraSourceList::at), 6U);
    EXPECT_EQ(slot(&LumoraSource::Listener::onAttachedLumoraSource), 1U);
    EXPECT_EQ(slot(&LumoraSource::Listener::onDetachedLumoraSource), 2U);

    EXPECT_EQ(slot(&LumoraCamera::state), 1U);
    EXPECT_EQ(slot(&LumoraCamera::source), 2U);
    EXPECT_EQ(slot(&LumoraCamera::lensCount), 3U);
    EXPECT_EQ(slot(&LumoraCamera::prepare), 8U);
    EXPECT_EQ(slot(&LumoraCamera::run), 10U);
    EXPECT_EQ(slot(&LumoraCamera::stop), 11U);
    EXPECT_EQ(slot(&LumoraCamera::release), 12U);
    EXPECT_EQ(slot(&LumoraCamera::setProperty), 13U);
    EXPECT_EQ(slot(&LumoraCamera::setProperties), 14U);
    EXPECT_EQ(slot(&LumoraCamera::getProperties), 16U);
    EXPECT_EQ(slot(&LumoraCamera::addSink), 17U);
    EXPECT_EQ(slot(&LumoraCamera::PreparedListener::onLumoraCameraPrepared), 1U);

    EXPECT_EQ(slot(&LumoraSink::name), 1U);
    EXPECT_EQ(slot(&LumoraSink::onLumoraCameraState), 2U);
    EXPECT_EQ(slot(&LumoraSink::onLumoraCameraError), 3U);
    EXPECT_EQ(slot(&LumoraSink::onLumoraFrameList), 4U);

    EXPECT_EQ(slot(&LumoraFrame::width), 1U);
    EXPECT_EQ(slot(&LumoraFrame::height), 2U);
    EXPECT_EQ(slot(&LumoraFrame::frameType), 3U);
    EXPECT_EQ(slot(&LumoraFrame::dataType), 4U);
    EXPECT_EQ(slot(&LumoraProperty::dataType), 4U);
    EXPECT_EQ(slot(&LumoraProperty::key), 7U);
    EXPECT_EQ(slot(&Timer::OnTimeEventListener::onTimeEvent), 1U);
}

}  // namespace
