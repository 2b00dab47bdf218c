// Telescopes behind an INDI server (https://indilib.org).

#include <libindi/baseclient.h>
#include <libindi/basedevice.h>
#include <libindi/indipropertynumber.h>
#include <libindi/indipropertyswitch.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "telescope/libIndiAddress.h"
#include "telescope/libTelescopeDriver.h"

namespace vestrel {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr const char* connection = "CONNECTION";
constexpr const char* connectElement = "CONNECT";
constexpr const char* coordinates = "EQUATORIAL_EOD_COORD";  // of the current date
constexpr const char* coordinateUse = "ON_COORD_SET";
constexpr const char* syncElement = "SYNC";
// Mounts may take long to connect, but servers answer at once.
constexpr milliseconds serverLimit{2500};
constexpr milliseconds deviceLimit{2500};
constexpr const char* serverGone = "the INDI server has gone";

/// What is known of a property; a copy of the client's own record, which its thread changes.
struct Property {
    IPState State = IPS_IDLE;
    std::map<std::string, double, std::less<>> Values;  ///< for a switch 1 when on
    bool Updated = false;                               ///< updated since it was defined
    // Since `Listen` was called:
    bool Heard = false;
    bool Agreed = false;
    bool Alerted = false;
};

/// Listens to the server for one device, on a thread of the client library.
class Client : public INDI::BaseClient {
 public:
    explicit Client(std::string device) : device_(std::move(device)) {}
    ~Client() override {
        if (started_ && isServerConnected()) disconnectServer();  // waits for the library's thread
    }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    bool Start(const std::string& numericHost, unsigned port, milliseconds limit) {
        setServer(numericHost.c_str(), port);
        const auto microseconds = std::chrono::microseconds(limit).count();
        setConnectionTimeout(static_cast<std::uint32_t>(microseconds / 1000000),
                             static_cast<std::uint32_t>(microseconds % 1000000));
        watchDevice(device_.c_str());
        started_ = connectServer();
        return started_;
    }

    /// Waits until a condition on the known properties holds; throws when it does not in time.
    template <typename Condition>
    void WaitUntil(steady_clock::time_point end, const char* what, Condition condition,
                   TelescopeError::Kind otherwise = TelescopeError::Kind::Refused) {
        std::unique_lock lock(lock_);
        changed_.wait_until(lock, end, [&] { return gone_ || condition(); });
        if (gone_) throw TelescopeError(serverGone, TelescopeError::Kind::Lost);
        if (!condition()) throw TelescopeError(what + Said(), otherwise);
    }
    /// A known property, or null; only for use within a condition.
    Property* Known(const char* name) {
        const auto found = known_.find(name);
        return found == known_.end() ? nullptr : &found->second;
    }
    /// A copy of a known property.
    Property Copy(const char* name) {
        const std::lock_guard lock(lock_);
        if (gone_) throw TelescopeError(serverGone, TelescopeError::Kind::Lost);
        const Property* property = Known(name);
        if (property == nullptr) throw TelescopeError("the mount has no " + std::string(name));
        return *property;
    }
    /// Forgets what was heard of a property, so that news is about the next request.
    void Listen(const char* name) {
        const std::lock_guard lock(lock_);
        // The library must not write to a server that has gone, because its threads race for the
        // error.
        if (gone_) throw TelescopeError(serverGone, TelescopeError::Kind::Lost);
        Property* property = Known(name);
        if (property == nullptr) throw TelescopeError("the mount has no " + std::string(name));
        property->Heard = property->Agreed = property->Alerted = false;
    }
    void ForgetMessage() {
        const std::lock_guard lock(lock_);
        message_.clear();
    }
    /// The device's last message, to be appended to an error text.
    std::string Complaint() {
        const std::lock_guard lock(lock_);
        return Said();
    }

    /// Sends a property of our own, because those of the library change while they are filled in.
    void SendSwitch(const char* name, const std::string& element) {
        INDI::PropertySwitch property(1);
        property.fill(device_.c_str(), name, "", "", IP_RW, ISR_1OFMANY, 0, IPS_IDLE);
        property[0].fill(element, "", ISS_ON);
        sendNewSwitch(property);
    }
    void SendCoordinates(double hours, double degrees) {
        INDI::PropertyNumber property(2);
        property.fill(device_.c_str(), coordinates, "", "", IP_RW, 0, IPS_IDLE);
        property[0].fill("RA", "", "%g", 0, 24, 0, hours);
        property[1].fill("DEC", "", "%g", -90, 90, 0, degrees);
        sendNewNumber(property);
    }

 protected:
    void newProperty(INDI::Property property) override { Note(property, false); }
    void updateProperty(INDI::Property property) override { Note(property, true); }
    void removeProperty(INDI::Property property) override {
        const std::lock_guard lock(lock_);
        known_.erase(property.getName());
        changed_.notify_all();
    }
    void newMessage(INDI::BaseDevice device, int index) override {
        const std::lock_guard lock(lock_);
        message_ = device.messageQueue(static_cast<std::size_t>(index));
        message_.erase(message_.find_last_not_of(' ') + 1);
    }
    void serverDisconnected(int) override {
        const std::lock_guard lock(lock_);
        gone_ = true;
        changed_.notify_all();
    }

 private:
    std::string Said() const { return message_.empty() ? "" : " (" + message_ + ")"; }
    void Note(INDI::Property& property, bool updated) {
        if (device_ != property.getDeviceName()) return;
        const std::lock_guard lock(lock_);
        Property& known = known_[property.getName()];
        known.State = property.getState();
        known.Updated = known.Updated || updated;
        known.Heard = true;
        known.Agreed = known.Agreed || known.State == IPS_OK;
        known.Alerted = known.Alerted || known.State == IPS_ALERT;
        if (property.getType() == INDI_NUMBER) {
            for (const auto& number : *property.getNumber()) {
                known.Values[number.getName()] = number.getValue();
            }
        } else if (property.getType() == INDI_SWITCH) {
            for (const auto& button : *property.getSwitch()) {
                known.Values[button.getName()] = button.getState() == ISS_ON ? 1 : 0;
            }
        }
        changed_.notify_all();
    }

    const std::string device_;
    bool started_ = false;
    std::mutex lock_;
    std::condition_variable changed_;
    std::map<std::string, Property, std::less<>> known_;
    std::string message_;
    bool gone_ = false;
};

/// Listens to the server for the devices that it has.
class DeviceListener : public INDI::BaseClient {
 public:
    ~DeviceListener() override {
        if (isServerConnected()) disconnectServer();  // waits for the library's thread
    }
    /// Servers do not say when they have told all: it is over when nothing comes any more.
    std::vector<std::string> Wait(steady_clock::time_point end) {
        constexpr milliseconds silence(400);
        std::unique_lock lock(lock_);
        for (std::size_t heard = heard_ + 1; heard != heard_ && steady_clock::now() < end;) {
            heard = heard_;
            changed_.wait_until(lock,
                                heard == 0 ? end : std::min(end, steady_clock::now() + silence),
                                [&] { return heard_ != heard; });
        }
        std::vector<std::string> mounts;
        std::vector<std::string> others;
        for (const auto& [name, isMount] : devices_) (isMount ? mounts : others).push_back(name);
        mounts.insert(mounts.end(), others.begin(), others.end());
        return mounts;
    }

 protected:
    void newProperty(INDI::Property property) override {
        const std::lock_guard lock(lock_);
        bool& isMount = devices_[property.getDeviceName()];
        isMount = isMount || property.isNameMatch(coordinates) || TellsMount(property);
        ++heard_;
        changed_.notify_all();
    }

 private:
    /// Drivers tell what they are before they are connected.
    static bool TellsMount(INDI::Property& property) {
        constexpr unsigned telescope = 1;
        if (!property.isNameMatch("DRIVER_INFO") || property.getType() != INDI_TEXT) return false;
        for (const auto& text : *property.getText()) {
            unsigned kinds = 0;
            const std::string_view value = text.getText() != nullptr ? text.getText() : "";
            if (text.isNameMatch("DRIVER_INTERFACE")) {
                std::from_chars(value.data(), value.data() + value.size(), kinds);
                return (kinds & telescope) != 0;
            }
        }
        return false;
    }
    std::mutex lock_;
    std::condition_variable changed_;
    std::map<std::string, bool> devices_;
    std::size_t heard_ = 0;
};

class IndiTelescope : public TelescopeDriver {
 public:
    explicit IndiTelescope(IndiAddress address) : address_(std::move(address)) {
        // The client library writes to servers that have gone; its thread inherits this signal
        // mask.
        sigset_t pipe{};
        sigemptyset(&pipe);
        sigaddset(&pipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
    }

    void SetConnected(bool connected) override {
        client_.reset();
        if (!connected) return;  // the mount stays connected for its other users
        if (address_.Device.empty()) throw TelescopeError("the address names no device");
        const auto end = steady_clock::now() + limits_.Connect - TelescopeLimits::Margin;
        const std::string host = Host();
        client_ = std::make_unique<Client>(address_.Device);
        if (!client_->Start(host, address_.Port, serverLimit)) {
            client_.reset();
            throw NoServer();
        }
        client_->WaitUntil(steady_clock::now() + deviceLimit, "the INDI server has no such device",
                           [this] { return client_->Known(connection) != nullptr; });
        foundConnected_ = true;
        ConnectMount(end, "the mount does not connect");
        client_->WaitUntil(end, "the mount tells no coordinates of date",
                           [this] { return client_->Known(coordinates) != nullptr; });
    }

    std::vector<std::string> Devices() override {
        DeviceListener listener;
        listener.setServer(Host().c_str(), address_.Port);
        const auto microseconds = std::chrono::microseconds(serverLimit).count();
        listener.setConnectionTimeout(static_cast<std::uint32_t>(microseconds / 1000000),
                                      static_cast<std::uint32_t>(microseconds % 1000000));
        if (!listener.connectServer()) throw NoServer();
        return listener.Wait(steady_clock::now() + deviceLimit);
    }

    double RightAscension() override { return Coordinate("RA"); }
    double Declination() override { return Coordinate("DEC"); }

    void SyncToCoordinates(double hours, double degrees) override {
        const auto end = End();
        Client& client = Begin();
        const Property use = client.Copy(coordinateUse);
        if (!use.Values.contains(syncElement)) throw TelescopeError("the mount cannot be synced");
        const auto before = std::find_if(use.Values.begin(), use.Values.end(),
                                         [](const auto& value) { return value.second == 1; });
        Switch(coordinateUse, syncElement, end, "the mount does not accept a sync");
        client.Listen(coordinates);
        client.SendCoordinates(hours, degrees);
        // Mounts send their coordinates all the time. Because they answer in order, the answer to
        // the sync has arrived when the next request is answered. That request also restores the
        // switch for other programs.
        Switch(coordinateUse, before == use.Values.end() ? syncElement : before->first, end,
               "the mount does not answer");
        // A parked mount sends neither an alert nor consent, only a message.
        constexpr const char* refused = "the mount refuses the sync";
        client.WaitUntil(end, refused, [&client] {
            const Property* told = client.Known(coordinates);
            return told != nullptr && (told->Agreed || told->Alerted);
        });
        if (client.Copy(coordinates).Alerted) throw TelescopeError(refused + client.Complaint());
    }

 private:
    steady_clock::time_point End() const {
        return steady_clock::now() + limits_.Call - TelescopeLimits::Margin;
    }
    std::string Host() const {
        std::string host = NumericAddress(address_.Host);
        if (host.empty()) throw TelescopeError("there is no host " + address_.Host);
        return host;
    }
    TelescopeError NoServer() const {
        return TelescopeError("no INDI server at " + address_.Host + ":" +
                              std::to_string(address_.Port));
    }
    /// The client, ready for the next request.
    Client& Begin() const {
        if (!client_) throw TelescopeError("not connected");
        client_->ForgetMessage();
        return *client_;
    }

    /// Sets one switch of a row and waits for the answer.
    void Switch(const char* name, const std::string& element, steady_clock::time_point end,
                const char* otherwise) {
        Client& client = *client_;
        client.Listen(name);
        client.SendSwitch(name, element);
        client.WaitUntil(
            end, otherwise,
            [&] {
                const Property* told = client.Known(name);
                return told != nullptr && told->Heard && told->State != IPS_BUSY;
            },
            TelescopeError::Kind::Lost);
        const Property told = client.Copy(name);
        const auto value = told.Values.find(element);
        if (told.Alerted || value == told.Values.end() || value->second != 1) {
            throw TelescopeError(otherwise + client.Complaint());
        }
    }

    void ConnectMount(steady_clock::time_point end, const char* otherwise) {
        const auto values = client_->Copy(connection).Values;
        const auto value = values.find(connectElement);
        foundConnected_ = foundConnected_ && value != values.end() && value->second == 1;
        Switch(connection, connectElement, end, otherwise);
    }

    /// Whether coordinates are really those of the mount. A mount defines them before it knows its
    /// position; only one that was connected all the time knows it already.
    bool AreTold(const Property& coordinate) const {
        return coordinate.Updated ||
               (foundConnected_ &&
                std::any_of(coordinate.Values.begin(), coordinate.Values.end(),
                            [](const auto& value) { return value.second != 0; }));
    }

    double Coordinate(const char* element) {
        const auto end = End();
        Client& client = Begin();
        // A mount that is connected just confirms that. Without this sign of life, a dead server's
        // last coordinates would be taken for current ones.
        ConnectMount(end, "the mount does not answer");
        client.WaitUntil(end, "the mount tells no coordinates yet", [&] {
            const Property* told = client.Known(coordinates);
            return told != nullptr && AreTold(*told);
        });
        const Property told = client.Copy(coordinates);
        const auto value = told.Values.find(element);
        if (value == told.Values.end()) throw TelescopeError("the mount tells no coordinates");
        if (told.State == IPS_ALERT) throw TelescopeError("the mount does not know where it is");
        return value->second;
    }

    IndiAddress address_;
    TelescopeLimits limits_;
    std::unique_ptr<Client> client_;
    bool foundConnected_ = false;  ///< the mount was already connected at every request to connect
};

}  // namespace

std::unique_ptr<TelescopeDriver> CreateTelescopeDriver() {
    const char* text = std::getenv("VESTREL_TELESCOPE");
    if (text == nullptr || *text == 0) return nullptr;
    auto address = ParseIndiAddress(text);
    if (!address || address->Device.empty()) {
        throw TelescopeError("$VESTREL_TELESCOPE is not indi://host:port/Device Name");
    }
    return std::make_unique<IndiTelescope>(std::move(*address));
}

std::unique_ptr<TelescopeDriver> CreateTelescopeDriverAt(const std::string& address) {
    auto parts = ParseIndiAddress(address.c_str());
    if (!parts) throw TelescopeError("the address is not indi://host:port/Device Name");
    return std::make_unique<IndiTelescope>(std::move(*parts));
}

}  // namespace vestrel
