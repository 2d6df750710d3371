// Requests and their answers.
#include "exchanges.h"

#include <gtest/gtest.h>

#include <optional>

#include "told.h"

namespace {

constexpr std::uint64_t us = 1000;
constexpr std::uint64_t second = 1'000'000'000;

class exchanges_test : public testing::Test {
 protected:
  exchanges::step_e follow(const told& what) {
    const exchanges::step step = m_exchanges.follow(*parsed(what));
    if (step.of != nullptr) m_last = *step.of;
    return step.kind;
  }
  exchange done(const told& request, const told& answer) {
    follow(request);
    follow(answer);
    return m_last;
  }
  exchanges m_exchanges;
  exchange m_last;
};

TEST_F(exchanges_test, begin_with_a_request) { EXPECT_EQ(follow(told{}), exchanges::ASKED); }

TEST_F(exchanges_test, end_with_a_response) {
  follow(told{});
  EXPECT_EQ(follow(told{}.answer(MSG_RSP)), exchanges::DONE);
}

TEST_F(exchanges_test, end_with_an_error) { EXPECT_TRUE(done(told{}, told{}.answer(MSG_ERR)).is_error); }

TEST_F(exchanges_test, end_once) {
  done(told{}, told{}.answer(MSG_RSP));
  EXPECT_EQ(follow(told{}.answer(MSG_RSP)), exchanges::NOTHING);
}

TEST_F(exchanges_test, do_not_begin_with_a_signal) {
  told signal;
  signal.type = MSG_SIG;
  EXPECT_EQ(follow(signal), exchanges::NOTHING);
}

TEST_F(exchanges_test, do_not_begin_with_an_event) {
  EXPECT_EQ(follow(make_told(RECORD_EVENT)), exchanges::NOTHING);
}

TEST_F(exchanges_test, do_not_end_with_an_answer_that_is_refused) {
  follow(told{});
  told answer = told{}.answer(MSG_RSP);
  answer.event = RECORD_REFUSED;
  EXPECT_EQ(follow(answer), exchanges::NOTHING);
}

struct other {
  const char* what;
  void (*change)(told& answer);
};

class other_answers : public exchanges_test, public testing::WithParamInterface<other> {};

TEST_P(other_answers, do_not_end_it) {
  follow(told{});
  told answer = told{}.answer(MSG_RSP);
  GetParam().change(answer);
  EXPECT_EQ(follow(answer), exchanges::NOTHING) << GetParam().what;
}

INSTANTIATE_TEST_SUITE_P(exchanges, other_answers,
                         testing::Values(other{"id", [](told& answer) { answer.id = 9; }},
                                         other{"receiver", [](told& answer) { answer.to = "x"; }},
                                         other{"source", [](told& answer) { answer.src = 9; }},
                                         other{"destination", [](told& answer) { answer.dst = 9; }}));

TEST_F(exchanges_test, begin_again_when_an_id_is_in_use_again) {
  follow(told{});
  EXPECT_EQ(follow(told{}), exchanges::ASKED);
}

TEST_F(exchanges_test, end_with_the_newer_request_when_an_id_is_in_use_again) {
  told newer;
  newer.time_ns += 500;
  follow(told{});
  EXPECT_EQ(done(newer, told{}.answer(MSG_RSP)).total_ns(), 500U);
}

TEST_F(exchanges_test, begin_once_when_the_request_waits_in_the_core) {
  follow(make_told(RECORD_QUEUED));
  EXPECT_EQ(follow(make_told(RECORD_DELIVERED)), exchanges::NOTHING);
}

TEST_F(exchanges_test, begin_once_when_the_core_receives_the_request_and_refuses_it) {
  told request = make_told(RECORD_RECEIVED);
  request.to = "kxcore";
  follow(request);
  request.event = RECORD_REFUSED;
  EXPECT_EQ(follow(request), exchanges::NOTHING);
}

TEST_F(exchanges_test, begin_again_when_a_request_with_an_id_in_use_is_refused) {
  follow(told{});
  EXPECT_EQ(follow(make_told(RECORD_REFUSED)), exchanges::ASKED);
}

TEST_F(exchanges_test, begin_again_when_a_request_with_an_id_in_use_is_dropped) {
  follow(told{});
  EXPECT_EQ(follow(make_told(RECORD_DROPPED)), exchanges::ASKED);
}

TEST_F(exchanges_test, begin_with_a_delivery_when_the_recording_begins_late) {
  EXPECT_EQ(follow(make_told(RECORD_DELIVERED)), exchanges::ASKED);
}

TEST_F(exchanges_test, end_when_an_answer_that_has_waited_is_delivered) {
  follow(told{});
  told answer = told{}.answer(MSG_RSP);
  answer.event = RECORD_QUEUED;
  follow(answer);
  answer.event = RECORD_DELIVERED;
  EXPECT_EQ(follow(answer), exchanges::DONE);
}

// Of 65537 open requests.
class very_many : public exchanges_test {
 protected:
  very_many() {
    for (m_request.id = 0; m_request.id <= 65536; ++m_request.id)
      follow(m_request);
  }
  exchanges::step_e answer(std::uint32_t id) {
    m_request.id = id;
    return follow(m_request.answer(MSG_RSP));
  }
  told m_request;
};

TEST_F(very_many, remember_the_newest) { EXPECT_EQ(answer(1), exchanges::DONE); }

TEST_F(very_many, forget_the_oldest) { EXPECT_EQ(answer(0), exchanges::NOTHING); }

// A request that is sent, handed on 10 us later, answered 100 us after that, and the answer handed on
// after 5.
class spans_of_an_exchange : public exchanges_test {
 protected:
  static told request(std::uint64_t at, std::uint32_t id = 1) {
    told made;
    made.id = id;
    made.sent_ns = second + at * us;
    made.time_ns = made.sent_ns + 10 * us;
    return made;
  }
  static told answer_to(const told& asked, std::uint64_t at) {
    told made = asked.answer(MSG_RSP);
    made.sent_ns = second + at * us;
    made.time_ns = made.sent_ns + 5 * us;
    return made;
  }
};

TEST_F(spans_of_an_exchange, have_a_total) {
  EXPECT_EQ(done(request(0), answer_to(request(0), 110)).total_ns(), 115 * us);
}

TEST_F(spans_of_an_exchange, have_the_ways_through_the_core) {
  EXPECT_EQ(done(request(0), answer_to(request(0), 110)).in_core_ns(), 15 * us);
}

TEST_F(spans_of_an_exchange, have_the_rest_in_the_server) {
  EXPECT_EQ(done(request(0), answer_to(request(0), 110)).in_server_ns(), 100 * us);
}

TEST_F(spans_of_an_exchange, have_no_waiting_for_a_free_server) {
  EXPECT_EQ(done(request(0), answer_to(request(0), 110)).waiting_ns(), 0U);
}

TEST_F(spans_of_an_exchange, have_the_waiting_for_a_server_with_an_earlier_request) {
  follow(request(0, 1));
  follow(request(20, 2));
  follow(answer_to(request(0, 1), 110));
  follow(answer_to(request(20, 2), 150));
  EXPECT_EQ(m_last.waiting_ns(), 80 * us);  // handed on at 30, until 110
}

TEST_F(spans_of_an_exchange, have_in_the_server_what_is_behind_the_waiting) {
  follow(request(0, 1));
  follow(request(20, 2));
  follow(answer_to(request(0, 1), 110));
  follow(answer_to(request(20, 2), 150));
  EXPECT_EQ(m_last.in_server_ns(), 40 * us);
}

TEST_F(spans_of_an_exchange, do_not_wait_for_a_later_request) {
  follow(request(0, 1));
  follow(request(20, 2));
  follow(answer_to(request(20, 2), 110));
  follow(answer_to(request(0, 1), 150));
  EXPECT_EQ(m_last.waiting_ns(), 0U);
}

TEST_F(spans_of_an_exchange, do_not_wait_for_another_server) {
  told other = request(0, 1);
  other.to = "clock";
  follow(other);
  follow(request(20, 2));
  follow(answer_to(other, 110));
  follow(answer_to(request(20, 2), 150));
  EXPECT_EQ(m_last.waiting_ns(), 0U);
}

TEST_F(spans_of_an_exchange, begin_when_a_request_that_has_waited_is_delivered) {
  told asked = request(0);
  asked.event = RECORD_QUEUED;
  told delivered = request(0);
  delivered.event = RECORD_DELIVERED;
  delivered.time_ns = second + 90 * us;
  follow(asked);
  follow(delivered);
  follow(answer_to(asked, 110));
  EXPECT_EQ(m_last.in_server_ns(), 20 * us);
}

TEST_F(spans_of_an_exchange, are_of_the_server_when_the_core_answers_in_its_place) {
  told answer = answer_to(request(0), 110);
  answer.from = "kxcore";
  EXPECT_EQ(done(request(0), answer).in_server_ns(), 100 * us);
}

TEST_F(spans_of_an_exchange, do_not_end_with_an_answer_that_is_refused) {
  told refused = answer_to(request(0), 60);
  refused.event = RECORD_REFUSED;
  follow(request(0));
  follow(refused);
  follow(answer_to(request(0), 110));
  EXPECT_EQ(m_last.in_server_ns(), 100 * us);
}

TEST_F(spans_of_an_exchange, are_nothing_when_a_clock_was_set_back) {
  EXPECT_EQ(done(request(500), answer_to(request(500), 0)).total_ns(), 0U);
}

TEST_F(spans_of_an_exchange, begin_with_the_record_when_the_sending_is_not_known) {
  told asked = request(0);
  asked.sent_ns = 0;
  EXPECT_EQ(done(asked, answer_to(asked, 110)).total_ns(), 105 * us);
}

}  // namespace
