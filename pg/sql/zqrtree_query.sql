-- Every operator and OR-combination on 1, 2 and 3 axes, against brute force
-- over the same entries, on trees built by bulk load, by inserts, and after
-- deletes and updates.
CREATE EXTENSION IF NOT EXISTS zqrtree;

-- The leaf tests written out: boxes are all minima, then all maxima.
CREATE FUNCTION bf(op text, e float8[], q float8[]) RETURNS bool LANGUAGE plpgsql IMMUTABLE AS $$
DECLARE
  d int := array_length(e, 1) / 2;
  name text;
  hit bool;
  any_hit bool := false;
  all_hit bool := true;
BEGIN
  FOREACH name IN ARRAY string_to_array(trim(both 'or()' FROM op), '|') LOOP
    hit := true;
    FOR k IN 1..d LOOP
      hit := hit AND CASE name
        WHEN 'intersect' THEN e[k] <= q[k + d] AND e[k + d] >= q[k]
        WHEN 'contains' THEN e[k] <= q[k] AND e[k + d] >= q[k + d]
        WHEN 'within' THEN e[k] >= q[k] AND e[k + d] <= q[k + d]
        WHEN 'equal' THEN e[k] = q[k] AND e[k + d] = q[k + d]
        ELSE true END;
    END LOOP;
    any_hit := any_hit OR hit;
    all_hit := all_hit AND hit;
  END LOOP;
  RETURN CASE WHEN op LIKE 'or(%' THEN any_hit ELSE all_hit END;
END $$;

-- Entries of 1, 2 and 3 axes; some share a box (id 3000 + g copies id g).
CREATE TABLE ents AS
  SELECT d AS dims, g AS id,
         ((ARRAY[x, y, z])[1:d] || (ARRAY[x + g % 13, y + g % 7, z + g % 5])[1:d])::float8[] AS box
  FROM generate_series(1, 3) d,
       LATERAL (SELECT g, (g * 7919) % 1000 AS x, (g * 104729) % 1000 AS y, (g * 31) % 1000 AS z
                FROM generate_series(1, 3000) g) s;
INSERT INTO ents SELECT dims, id + 3000, box FROM ents WHERE id <= 50;

SELECT zqrtree_create('e' || d, d) FROM generate_series(1, 3) d;
-- Two thirds bulk-loaded, the rest inserted one by one.
SELECT d, zqrtree_load('e' || d, format('SELECT id, box FROM ents WHERE dims = %s AND id <= 2000', d))
  FROM generate_series(1, 3) d;
SELECT dims, count(zqrtree_insert('e' || dims, id, box)) FROM ents WHERE id > 2000
  GROUP BY dims ORDER BY dims;
SELECT d, zqrtree_check('e' || d) FROM generate_series(1, 3) d;

CREATE TABLE ops(op text);
INSERT INTO ops VALUES ('intersect'), ('contains'), ('within'), ('equal'), ('intersect|within'),
  ('contains|equal'), ('or(within|equal)'), ('or(contains|within)'), ('or(any)'),
  ('or(equal|intersect)');
-- Windows as fractions of the extent on every axis; one is entry 17's own box.
CREATE TABLE wins(w int, lo float8, hi float8);
INSERT INTO wins VALUES (1, 100, 300), (2, 0, 1000), (3, 500, 500), (4, -10, -1), (5, NULL, NULL);
CREATE FUNCTION win(d int, w int) RETURNS float8[] LANGUAGE sql AS $$
  SELECT coalesce((SELECT array_fill(lo, ARRAY[d]) || array_fill(hi, ARRAY[d]) FROM wins
                   WHERE wins.w = win.w AND lo IS NOT NULL),
                  (SELECT box FROM ents WHERE dims = d AND id = 17))
$$;

-- Per combination: the index's hits, and the rows on which the index and
-- brute force disagree (an entry missing or one too many).
CREATE VIEW answers AS
  WITH combos AS (SELECT d, op, w, win(d, w) AS q FROM generate_series(1, 3) d, ops, wins),
  got AS (SELECT c.d, c.op, c.w, r.id, r.box
          FROM combos c, LATERAL zqrtree_query('e' || c.d, c.op, c.q) r),
  want AS (SELECT c.d, c.op, c.w, e.id, e.box
           FROM combos c JOIN ents e ON e.dims = c.d WHERE bf(c.op, e.box, c.q)),
  both_sides AS (SELECT d, op, w, g.id IS NOT NULL AS in_index, t.id IS NOT NULL AS in_truth
                 FROM got g FULL JOIN want t USING (d, op, w, id, box))
  SELECT c.d, c.op, c.w, count(*) FILTER (WHERE b.in_index) AS hits,
         count(*) FILTER (WHERE b.in_index <> b.in_truth) AS wrong
  FROM combos c LEFT JOIN both_sides b USING (d, op, w) GROUP BY c.d, c.op, c.w;

SELECT d, op, sum(hits) AS hits, sum(wrong) AS wrong FROM answers GROUP BY d, op ORDER BY d, op;

-- Deletes by the stored box and updates to a new box, then the same check.
SELECT dims, count(zqrtree_delete('e' || dims, id, box)) FROM ents WHERE id % 5 = 0
  GROUP BY dims ORDER BY dims;
DELETE FROM ents WHERE id % 5 = 0;
SELECT dims, count(zqrtree_update('e' || dims, id, box, ARRAY(SELECT v + 3 FROM unnest(box) v)))
  FROM ents WHERE id % 7 = 0 GROUP BY dims ORDER BY dims;
UPDATE ents SET box = ARRAY(SELECT v + 3 FROM unnest(box) v) WHERE id % 7 = 0;
SELECT d, zqrtree_check('e' || d) FROM generate_series(1, 3) d;
SELECT d, count(*) FILTER (WHERE wrong <> 0) AS wrong_answers, sum(hits) AS hits
  FROM answers GROUP BY d ORDER BY d;
