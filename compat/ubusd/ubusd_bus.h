// The bus daemon's state and message handling, independent of sockets: the event loop (ubusd_main.cpp) feeds
// received bytes into Bus::receive() and writes out what the bus queues on each client. Tests and the fuzzer
// drive the same code in-process.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "ubusd_blob.h"

namespace ubusd {

constexpr size_t kMaxTxQueue = 1048576;		// per client; messages beyond it are dropped

// One complete outgoing message and the descriptor that travels with it (-1 for none).
struct Frame {
	std::vector<uint8_t> bytes;
	int fd = -1;
};

struct Object;

struct Client {
	uint32_t id = 0;
	uint32_t uid = 0, gid = 0;
	std::string user, group;
	int sock = -1;				// owned by the event loop
	std::vector<uint8_t> rx;		// start of a message not yet complete
	int rx_fd = -1;				// descriptor received with the message being read
	std::deque<Frame> txq;
	size_t txq_bytes = 0;
	size_t tx_offset = 0;			// bytes of txq.front() already written
	bool monitor = false;
	std::vector<uint32_t> objects;		// ids of the objects this client owns
};

struct Type {
	uint32_t id = 0;
	unsigned refs = 0;
	std::vector<uint8_t> signature;		// the children of the SIGNATURE attribute, as registered
};

struct Object {
	uint32_t id = 0;
	Client *owner = nullptr;
	std::string path;			// empty for an anonymous object
	Type *type = nullptr;
	std::vector<uint32_t> subscribers;	// subscriber objects watching this one
	std::vector<uint32_t> targets;		// objects this (subscriber) object watches
};

class Bus {
public:
	// seed 0 takes ids from /dev/urandom; any other seed makes the ids reproducible (tests, fuzzing).
	explicit Bus(uint64_t seed = 0);
	~Bus();
	Bus(const Bus &) = delete;
	Bus &operator=(const Bus &) = delete;

	// Called whenever something was queued on a client, so the event loop can start writing.
	std::function<void(Client &)> on_output;

	// Registers a connected peer and queues its HELLO.
	Client *add_client(uint32_t uid, uint32_t gid, std::string user, std::string group, int sock = -1);
	// Drops a departed client with all its objects, subscriptions and queued output (closing queued fds).
	void remove_client(Client *cl);

	// Feeds bytes read from a client's socket; handles every message completed by them. A descriptor received
	// with the bytes is attached to the message it arrived with. Returns false when the client sent a frame
	// that is not acceptable and must be disconnected.
	bool receive(Client &cl, const uint8_t *data, size_t len, int fd = -1);

	// Handles one complete message (as receive() does once a message is complete).
	void dispatch(Client &cl, const Message &msg);

	Client *client(uint32_t id);
	Object *object(uint32_t id);
	size_t client_count() const { return clients_.size(); }
	size_t object_count() const { return objects_.size(); }
	size_t type_count() const { return types_.size(); }

private:
	uint32_t random_u32();
	template <class Map> uint32_t new_id(const Map &taken);

	// UBUS_STATUS_OK when obj exists and belongs to cl, else NOT_FOUND or PERMISSION_DENIED.
	static int32_t ownership(const Client &cl, const Object *obj);

	// The INVOKE that carries the call (or notification) m of caller to the object objid.
	static std::vector<uint8_t> invoke_message(const Client &caller, const Message &m, uint32_t objid, bool no_reply);

	void queue(Client &cl, std::vector<uint8_t> bytes, int fd = -1);
	void send_status(Client &cl, const Message &req, int32_t status);
	void monitor(Client &cl, bool send, const uint8_t *frame, size_t len);

	void handle_lookup(Client &cl, const Message &m);
	void handle_add_object(Client &cl, const Message &m);
	void handle_remove_object(Client &cl, const Message &m);
	void handle_invoke(Client &cl, const Message &m);
	void handle_reply(Client &cl, const Message &m);
	void handle_subscribe(Client &cl, const Message &m, bool subscribe);
	void handle_notify(Client &cl, const Message &m);
	int32_t handle_event_call(Client &cl, const Message &m);
	int32_t handle_monitor_call(Client &cl, const Message &m);

	void delete_object(Object *obj, std::vector<uint8_t> *removed_type);
	void unsubscribe(Object *subscriber, Object *target);
	void notify_active(Object *target, bool active);
	void send_event(Client *from, const std::string &id, const uint8_t *data, size_t len);
	void object_event(const char *event, const Object &obj);

	std::unordered_map<uint32_t, std::unique_ptr<Client>> clients_;
	std::unordered_map<uint32_t, std::unique_ptr<Object>> objects_;
	std::unordered_map<uint32_t, std::unique_ptr<Type>> types_;
	std::map<std::string, Object *> paths_;		// strcmp order, as listings need
	std::multimap<uint32_t, std::string> listeners_;	// event listener object id -> pattern
	uint64_t rng_state_ = 0;
	int urandom_ = -1;
	uint16_t event_seq_ = 0;
};

} // namespace ubusd
