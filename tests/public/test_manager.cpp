// The manager's slot rules and argument checks, through the public interface.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "evcam/evcam.h"

namespace evcam {
namespace {

// The manager is process-wide: every test deletes what it made, so slots start free.
class ManagerTest : public ::testing::Test {
  protected:
    void TearDown() override {
        for (DVS* d : made_) {
            DVSManager::DeleteDVS(d);
        }
    }
    DVS* Make(DVS_TYPE type) {
        DVS* d = DVSManager::CreateDVS(type);
        if (d != nullptr) {
            made_.push_back(d);
        }
        return d;
    }
    void Delete(DVS* d) {
        made_.erase(std::find(made_.begin(), made_.end(), d));
        DVSManager::DeleteDVS(d);
    }
    std::vector<DVS*> made_;
};

TEST_F(ManagerTest, two_device_slots_and_one_file_slot_are_freed_only_by_their_objects) {
    EXPECT_EQ(DVSManager::CreateDVS(static_cast<DVS_TYPE>(3)), nullptr);
    EXPECT_EQ(DVSManager::CreateDVS(static_cast<DVS_TYPE>(-1)), nullptr);
    DVS* first = Make(DVS_FX20);
    DVS* file = Make(DVS_FILE);
    DVS* second = Make(DVS_FX20);
    ASSERT_TRUE(first != nullptr && second != nullptr && file != nullptr);
    EXPECT_NE(first, second);
    EXPECT_EQ(Make(DVS_FX20), nullptr);
    EXPECT_EQ(Make(DVS_FX3), nullptr);
    EXPECT_EQ(Make(DVS_FILE), nullptr);
    // A pointer that is in no slot is neither called, destroyed nor reported.
    DVSManager::DeleteDVS(nullptr);
    DVSManager::DeleteDVS(reinterpret_cast<DVS*>(&made_));
    EXPECT_EQ(Make(DVS_FILE), nullptr);

    Delete(first);
    Delete(file);
    DVS* third = Make(DVS_FX3);  // takes the freed slot 0, whatever the transport
    ASSERT_NE(third, nullptr);
    EXPECT_EQ(DVSManager::BindDevice(third, 0), DVSManager::BindDevice(second, 0));
    EXPECT_NE(Make(DVS_FILE), nullptr);
}

TEST_F(ManagerTest, bind_scan_and_base_operations_answer_by_kind) {
    DVS* device = Make(DVS_FX20);
    DVS* file = Make(DVS_FILE);
    ASSERT_TRUE(device != nullptr && file != nullptr);
    EXPECT_EQ(DVSManager::BindDevice(device, 2), ERR_INVALID_DEVICE);
    EXPECT_EQ(DVSManager::BindDevice(device, -1), ERR_INVALID_DEVICE);
    EXPECT_EQ(DVSManager::BindDevice(static_cast<DVS*>(nullptr), 0), ERR_NOT_SUPPORT);
    EXPECT_EQ(DVSManager::BindDevice(file, 0), ERR_NOT_SUPPORT);
    EXPECT_EQ(DVSManager::BindDevice(file, ""), ERR_INVALID_FILE);
    EXPECT_EQ(DVSManager::BindDevice(file, static_cast<const char*>(nullptr)), ERR_INVALID_FILE);
    EXPECT_EQ(DVSManager::BindDevice(device, "x.dvs"), ERR_NOT_SUPPORT);
    EXPECT_EQ(DVSManager::BindDevice(static_cast<DVS*>(nullptr), "x.dvs"), ERR_NOT_SUPPORT);
    EXPECT_EQ(DVSManager::UnbindDevice(device), ERR_NOT_SUPPORT);
    EXPECT_EQ(DVSManager::UnbindDevice(nullptr), ERR_NOT_SUPPORT);
    int count = -1;
    EXPECT_EQ(DVSManager::ScanFX20Device(nullptr, count), ERR_PARA_ERROR);
    EXPECT_EQ(DVSManager::ScanAllDevices(nullptr, count), ERR_PARA_ERROR);

    // A device cannot pause, resume or unbind; a recording has no registers and no disk-space
    // callback, and its DropFrame is the base one, which always succeeds.
    EXPECT_EQ(device->Pause(), ERR_NOT_SUPPORT);
    EXPECT_EQ(device->Resume(), ERR_NOT_SUPPORT);
    EXPECT_EQ(device->UnbindDevice(), ERR_NOT_SUPPORT);
    int value = 0;
    EXPECT_EQ(file->ReadI2CReg(0x20, 0x3A, value), ERR_NOT_SUPPORT);
    EXPECT_EQ(file->WriteI2CReg(0x20, 0x3A, 1), ERR_NOT_SUPPORT);
    EXPECT_EQ(file->SetSavingNoneSpaceCbk([](void*) {}, nullptr), ERR_NOT_SUPPORT);
    EXPECT_EQ(file->DropFrame(), ERR_SUCCESS);
}

}  // namespace
}  // namespace evcam
