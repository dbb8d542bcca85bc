// Reads DWARF's number forms from bytes that nobody vouches for: past the end every read gives 0 and ok()
// turns false.
#pragma once

#include <cstdint>
#include <cstring>
#include <span>

// Pointer encodings of .eh_frame and .eh_frame_hdr, see the Linux Standard Base, "DWARF Extensions".
namespace pointer_encoding
{
constexpr uint8_t absolute = 0x00, uleb = 0x01, udata2 = 0x02, udata4 = 0x03, udata8 = 0x04;
constexpr uint8_t sleb = 0x09, sdata2 = 0x0a, sdata4 = 0x0b, sdata8 = 0x0c;
constexpr uint8_t pc_relative = 0x10, data_relative = 0x30, indirect = 0x80, omitted = 0xff;
constexpr uint8_t format_mask = 0x0f, application_mask = 0x70;
}  // namespace pointer_encoding

class byte_reader
{
public:
    // address: where the first byte is in the target; pc-relative pointers count from it.
    byte_reader(std::span<const uint8_t> bytes, uint64_t address) : bytes_(bytes), address_(address) {}

    bool ok() const { return ok_; }
    bool at_end() const { return position_ >= bytes_.size(); }
    size_t position() const { return position_; }
    uint64_t address() const { return address_ + position_; }
    std::span<const uint8_t> rest() const { return bytes_.subspan(position_); }

    template <typename number>
    number read()
    {
        number value{};
        if (const uint8_t* from = take(sizeof(number)))
            memcpy(&value, from, sizeof(number));
        return value;
    }

    // Null when fewer are left.
    const uint8_t* take(uint64_t count)
    {
        if (!ok_ || count > bytes_.size() - position_) {
            ok_ = false;
            position_ = bytes_.size();
            return nullptr;
        }
        const uint8_t* from = bytes_.data() + position_;
        position_ += count;
        return from;
    }

    uint64_t read_uleb()
    {
        uint64_t value = 0;
        for (unsigned shift = 0;; shift += 7) {
            const auto byte = read<uint8_t>();
            if (shift < 64)
                value |= uint64_t{byte & 0x7fu} << shift;
            if ((byte & 0x80) == 0)
                return value;
        }
    }

    int64_t read_sleb()
    {
        uint64_t value = 0;
        for (unsigned shift = 0;;) {
            const auto byte = read<uint8_t>();
            if (shift < 64)
                value |= uint64_t{byte & 0x7fu} << shift;
            shift += 7;
            if ((byte & 0x80) != 0)
                continue;
            if (shift < 64 && (byte & 0x40) != 0)
                value |= ~uint64_t{0} << shift;
            return static_cast<int64_t>(value);
        }
    }

    // An indirect pointer gives the address of the pointer.
    uint64_t read_pointer(uint8_t encoding)
    {
        if (encoding == pointer_encoding::omitted)
            return 0;
        const uint64_t here = address();
        uint64_t value = 0;
        switch (encoding & pointer_encoding::format_mask) {
            case pointer_encoding::absolute:
            case pointer_encoding::udata8:
            case pointer_encoding::sdata8:
                value = read<uint64_t>();
                break;
            case pointer_encoding::uleb:
                value = read_uleb();
                break;
            case pointer_encoding::sleb:
                value = static_cast<uint64_t>(read_sleb());
                break;
            case pointer_encoding::udata2:
                value = read<uint16_t>();
                break;
            case pointer_encoding::sdata2:
                value = static_cast<uint64_t>(int64_t{read<int16_t>()});
                break;
            case pointer_encoding::udata4:
                value = read<uint32_t>();
                break;
            case pointer_encoding::sdata4:
                value = static_cast<uint64_t>(int64_t{read<int32_t>()});
                break;
            default:
                ok_ = false;
        }
        switch (encoding & pointer_encoding::application_mask) {
            case 0:
                return value;
            case pointer_encoding::pc_relative:
                return value + here;
            default:  // no compiler of these machines emits the other forms
                ok_ = false;
                return 0;
        }
    }

private:
    std::span<const uint8_t> bytes_;
    uint64_t address_;
    size_t position_ = 0;
    bool ok_ = true;
};
