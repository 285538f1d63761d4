#pragma once

#include <functional>
#include <string>
#include <string_view>

/** What tasks and the volume model ask of the application.
 *
 *  The application binds its own before any task starts; without one, messages stay English and
 *  the interval is one second.
 */
class VZDefragServices {
public:
    VZDefragServices() = default;
    VZDefragServices(const VZDefragServices&) = delete;
    VZDefragServices& operator=(const VZDefragServices&) = delete;
    virtual ~VZDefragServices() = default;

    /** Minimum seconds between two progress lines of a task. */
    [[nodiscard]] virtual double progressInterval() const { return 1.0; }
    /** The translation of an English message, or the message itself. */
    [[nodiscard]] virtual std::string localizedStringForKey(std::string_view key) const
    {
        return std::string(key);
    }
    /** The reader of standard output went away. Any thread. */
    virtual void outputReaderDidGoAway() {}

    /** Seconds since a fixed moment in the past; never goes back. Any thread. */
    [[nodiscard]] virtual double timeIntervalSinceReferenceDate() const;
    /** Queues @p work for the main thread without waiting; it runs at once where no application
     *  has a main loop. Any thread. */
    virtual void performOnMainThread(std::function<void()> work);

    [[nodiscard]] static VZDefragServices& sharedServices();
    /** Binds @p services, or the defaults for null. */
    static void setSharedServices(VZDefragServices* services);
};
