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
    void Forget(DVS* d) { made_.erase(std::find(made_.begin(), made_.end(), d)); }
    std::vector<DVS*> made_;
};

TEST_F(ManagerTest, two_devices_then_null_and_slot_zero_is_reused) {
    DVS* first = Make(DVS_FX20);
    DVS* second = Make(DVS_FX20);
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    EXPECT_NE(first, second);
    EXPECT_EQ(Make(DVS_FX20), nullptr);
    EXPECT_EQ(Make(DVS_FX3), nullptr);

    Forget(first);
    DVSManager::DeleteDVS(first);
    DVS* third = Make(DVS_FX3);  // takes the freed slot 0, whatever the transport
    ASSERT_NE(third, nullptr);
    EXPECT_EQ(DVSManager::BindDevice(third, 0), DVSManager::BindDevice(second, 0));
}

TEST_F(ManagerTest, one_file_object_at_a_time_beside_the_devices) {
    DVS* file = Make(DVS_FILE);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(Make(DVS_FILE), nullptr);
    EXPECT_NE(Make(DVS_FX20), nullptr);
    EXPECT_NE(Make(DVS_FX3), nullptr);
    Forget(file);
    DVSManager::DeleteDVS(file);
    EXPECT_NE(Make(DVS_FILE), nullptr);
}

TEST_F(ManagerTest, unknown_type_gives_null) {
    EXPECT_EQ(DVSManager::CreateDVS(static_cast<DVS_TYPE>(3)), nullptr);
    EXPECT_EQ(DVSManager::CreateDVS(static_cast<DVS_TYPE>(-1)), nullptr);
}

TEST_F(ManagerTest, delete_ignores_null_and_unknown_pointers) {
    DVSManager::DeleteDVS(nullptr);
    DVS* file = Make(DVS_FILE);
    ASSERT_NE(file, nullptr);
    // A pointer that is in no slot is neither called, destroyed nor reported.
    DVSManager::DeleteDVS(reinterpret_cast<DVS*>(&made_));
    EXPECT_EQ(Make(DVS_FILE), nullptr);
}

TEST_F(ManagerTest, bind_checks_kind_and_index) {
    DVS* device = Make(DVS_FX20);
    DVS* file = Make(DVS_FILE);
    ASSERT_NE(device, nullptr);
    ASSERT_NE(file, nullptr);

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
}

TEST_F(ManagerTest, scans_refuse_a_null_list) {
    int count = -1;
    EXPECT_EQ(DVSManager::ScanFX20Device(nullptr, count), ERR_PARA_ERROR);
    EXPECT_EQ(DVSManager::ScanAllDevices(nullptr, count), ERR_PARA_ERROR);
}

TEST_F(ManagerTest, base_operations_answer_as_documented_on_each_kind) {
    DVS* device = Make(DVS_FX20);
    DVS* file = Make(DVS_FILE);
    ASSERT_NE(device, nullptr);
    ASSERT_NE(file, nullptr);
    // Pause, Resume and UnbindDevice are not supported on a device.
    EXPECT_EQ(device->Pause(), ERR_NOT_SUPPORT);
    EXPECT_EQ(device->Resume(), ERR_NOT_SUPPORT);
    EXPECT_EQ(device->UnbindDevice(), ERR_NOT_SUPPORT);
    // Register access and the disk-space callback are not supported on a recording;
    // DropFrame is the base one and always succeeds.
    int value = 0;
    EXPECT_EQ(file->ReadI2CReg(0x20, 0x3A, value), ERR_NOT_SUPPORT);
    EXPECT_EQ(file->WriteI2CReg(0x20, 0x3A, 1), ERR_NOT_SUPPORT);
    EXPECT_EQ(file->SetSavingNoneSpaceCbk([](void*) {}, nullptr), ERR_NOT_SUPPORT);
    EXPECT_EQ(file->DropFrame(), ERR_SUCCESS);
}

}  // namespace
}  // namespace evcam
