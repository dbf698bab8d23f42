// Long random runs of every operation on each container kind, checked after
// every step against a std::deque. Every element is a heap copy owned by the
// callbacks, so a lost, leaked or twice-released element shows (and the
// sanitizer build's leak check sees what the ledger might miss).
#include <algorithm>
#include <climits>
#include <deque>
#include <random>

#include "container_kinds.h"

using namespace ctest;

namespace {

template <class K>
class Model : public ContainerTest<K> {
protected:
    using C = typename K::C;
    static constexpr std::size_t kListed = 3;  // containers of the init_list array; one more comes from create
    static constexpr bool kRing = !K::linked && K::fifo;

    C* at(std::size_t i) { return i < kListed ? &K::array(list_)[i] : single_; }
    bool full(std::size_t i) const {
        if (K::linked) return false;
        return K::fifo ? slots_[i] > 0 && m_[i].size() == slots_[i] - 1 : m_[i].size() == slots_[i];
    }
    UTIL_S32 position_of(std::size_t i, std::size_t k) const {
        return static_cast<UTIL_S32>(kRing ? (head_[i] + k) % slots_[i] : k);
    }
    // The element a lookup at `pos` of a non-empty container reaches, or -1.
    long element_at(std::size_t i, UTIL_S32 pos) const {
        const long n = static_cast<long>(m_[i].size());
        if (K::linked) return pos < 0 ? 0 : pos < n ? pos : -1;
        if (!kRing) return pos >= 0 && pos < n ? pos : -1;
        const auto slot = static_cast<UTIL_U32>(pos);
        if (slot >= slots_[i]) return -1;
        const long k = static_cast<long>((slot + slots_[i] - head_[i]) % slots_[i]);
        return k < n ? k : -1;
    }
    UTIL_S32 random_position(std::size_t i) {
        const auto span = static_cast<UTIL_U32>(K::linked ? m_[i].size() : slots_[i]) + 3;
        static constexpr UTIL_S32 kOdd[] = {INT_MIN, INT_MAX, -1, -2, -3};
        return rng_() % 3 == 0 ? kOdd[rng_() % 5] : static_cast<UTIL_S32>(rng_() % span);
    }
    void push(std::size_t i, int v) { K::fifo ? m_[i].push_back(v) : m_[i].push_front(v); }
    int pop(std::size_t i) {
        const int v = m_[i].front();
        m_[i].pop_front();
        if (kRing) head_[i] = (head_[i] + 1) % slots_[i];
        return v;
    }

    // init_list over the live list (or over a list just ended): the old
    // elements leave through the remove callback, in index order.
    void new_list() {
        std::vector<C> templates;
        std::vector<int> gone;
        for (std::size_t i = 0; i < kListed; ++i) {
            gone.insert(gone.end(), m_[i].begin(), m_[i].end());
            m_[i].clear();
            head_[i] = 0;
            slots_[i] = K::linked ? 0 : static_cast<UTIL_U32>(rng_() % 7);
            templates.push_back(K::make(owning_callbacks<K>(), slots_[i]));
        }
        g.removed.clear();
        if (rng_() % 2) {
            ASSERT_EQ(K::ops()->exit_list(&list_), 0);
        }
        console([&] { ASSERT_EQ(K::ops()->init_list(&list_, templates.data(), kListed), 0); });
        EXPECT_EQ(g.removed, gone);
    }

    // One random operation; `messages` is how many console reports it should make.
    void step() {
        const std::size_t i = rng_() % (kListed + 1);
        const unsigned op = rng_() % 12;
        if (op == 11) {
            if (rng_() % 10 == 0) new_list();
            return;
        }
        C* c = at(i);
        std::deque<int>& m = m_[i];
        auto* ops = K::ops();
        int messages = 0;
        std::vector<int> removed;
        g.removed.clear();
        g.shown.clear();
        g.moved.clear();
        const std::string out = console([&] {
            if (op <= 2) {  // insert, most often, so that containers fill up
                int v = next_++;
                const UTIL_S32 want = !K::linked && slots_[i] == 0 ? -1 : full(i) ? 1 : 0;
                messages = want == -1;
                EXPECT_EQ(ops->insert(c, &v), want);
                if (want == 0) push(i, v);
            } else if (op == 3) {
                EXPECT_EQ(ops->remove(c), m.empty() ? 1 : 0);
                if (!m.empty()) removed.push_back(pop(i));
            } else if (op == 4) {
                int key = !m.empty() && rng_() % 3 != 0 ? m[rng_() % m.size()] : -1;
                const auto hit = std::find(m.begin(), m.end(), key);
                messages = K::linked && m.empty();
                EXPECT_EQ(ops->search(c, &key), hit == m.end() ? -1 : position_of(i, hit - m.begin()));
            } else if (op <= 6) {
                const UTIL_S32 pos = random_position(i);
                const long k = m.empty() ? 0 : element_at(i, pos);
                messages = k >= 0 ? 0 : K::linked ? 2 : 1;
                int v = next_++;
                if (op == 5) {
                    EXPECT_EQ(ops->modify(c, pos, &v), m.empty() ? 1 : k < 0 ? -1 : v % 5 + 2);
                    if (!m.empty() && k >= 0) m[k] = v;
                } else {
                    void* data = ops->getNodeData(c, pos);
                    EXPECT_EQ(data == nullptr ? -1 : value(data), m.empty() || k < 0 ? -1 : m[k]);
                }
            } else if (op <= 8) {
                const std::size_t j = rng_() % (kListed + 1);
                C* in = at(j);
                UTIL_S32 want = m.empty() ? 1 : 0;
                if (want == 0 && !K::linked) want = slots_[j] == 0 ? -1 : i != j && full(j) ? 1 : 0;
                messages = want == -1;
                std::vector<std::pair<void*, void*>> nodes;
                if (want == 0) nodes.push_back(K::transfer_nodes(*c, *in));
                EXPECT_EQ(ops->transfer(c, in), want);
                EXPECT_EQ(g.moved, nodes);
                if (want == 0) push(j, pop(i));
            } else if (op == 9) {
                removed.assign(m.begin(), m.end());
                EXPECT_EQ(ops->clear(c), 0);
                while (!m.empty()) pop(i);
            } else {
                messages = K::linked && m.empty();
                EXPECT_EQ(ops->display(c), messages ? -1 : 0);
                EXPECT_EQ(g.shown, std::vector<int>(m.begin(), m.end()));
            }
        });
        long printed = 0;
        for (auto at = out.find("DBG_ERR:"); at != std::string::npos; at = out.find("DBG_ERR:", at + 1)) ++printed;
        EXPECT_EQ(printed, messages) << "operation " << op << ": " << out;
        EXPECT_EQ(g.removed, removed) << "operation " << op;
        check_all();
    }

    void check_all() {
        std::size_t held = 0;
        auto* ops = K::ops();
        EXPECT_EQ(console([&] {
                      for (std::size_t i = 0; i <= kListed; ++i) {
                          C* c = at(i);
                          const auto& m = m_[i];
                          held += m.size();
                          EXPECT_EQ(ops->getSize(c), static_cast<UTIL_S32>(m.size()));
                          EXPECT_EQ(ops->getCount(c), static_cast<UTIL_S32>(K::linked ? m.size() : slots_[i]));
                          EXPECT_EQ(ops->isEmpty(c), m.empty() ? UTIL_TRUE : UTIL_FALSE);
                          if constexpr (!K::linked) {
                              EXPECT_EQ(ops->isFull(c), full(i) ? UTIL_TRUE : UTIL_FALSE);
                          }
                          for (std::size_t k = 0; k < m.size(); ++k) {
                              void* data = ops->getNodeData(c, position_of(i, k));
                              EXPECT_EQ(data == nullptr ? -1 : value(data), m[k]) << "container " << i << " element " << k;
                          }
                      }
                  }),
                  "");
        EXPECT_EQ(g.live.size(), held);
        EXPECT_EQ(g.broken, 0);
    }

    std::mt19937 rng_;
    typename K::L list_{};
    C* single_ = nullptr;
    std::deque<int> m_[kListed + 1];
    UTIL_U32 slots_[kListed + 1] = {};
    UTIL_U32 head_[kListed + 1] = {};
    int next_ = 1;
};

TYPED_TEST_SUITE(Model, Kinds);

TYPED_TEST(Model, RandomRunsMatchADequeAndReleaseEveryElementOnce) {
    using K = TypeParam;
    constexpr std::size_t single = TestFixture::kListed;
    for (unsigned seed : {1u, 2u, 3u}) {
        this->rng_.seed(seed);
        this->new_list();
        this->slots_[single] = K::linked ? 0 : 1 + static_cast<UTIL_U32>(this->rng_() % 6);
        this->head_[single] = 0;
        typename K::C tmpl = K::make(owning_callbacks<K>(), this->slots_[single]);
        this->single_ = K::ops()->create(&tmpl);
        ASSERT_NE(this->single_, nullptr);
        for (int s = 0; s < 2000 && !this->HasFailure(); ++s) this->step();

        const auto& last = this->m_[single];
        g.removed.clear();
        EXPECT_EQ(K::ops()->destroy(&this->single_), 0);
        EXPECT_EQ(this->single_, nullptr);
        EXPECT_EQ(g.removed, std::vector<int>(last.begin(), last.end()));
        EXPECT_EQ(K::ops()->exit_list(&this->list_), 0);
        EXPECT_EQ(K::array(this->list_), nullptr);
        EXPECT_EQ(K::max(this->list_), 0);
        EXPECT_TRUE(g.live.empty()) << g.live.size() << " elements never released, seed " << seed;
        EXPECT_EQ(g.broken, 0);
        for (auto& m : this->m_) m.clear();
    }
}

}  // namespace
